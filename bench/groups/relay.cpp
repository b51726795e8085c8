// A pair of relays beside a plain publisher and consumer: the same broker, messages, batches and
// confirms. What the relays add is a channel on each side and the record of what has arrived.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "bench/groups/groups.h"
#include "bench/workplace.h"
#include "halvo/frx.h"
#include "tools/fixture/segment_builder.h"
#include "tools/relay/rabbit/broker.h"

namespace halvo::bench {

namespace {

using relay::BrokerConfig;

constexpr uint32_t kBody = 100;
constexpr int kBatches[] = {1, 50, 500};
constexpr double kGoal = 0.8;
const std::string kScript = HALVO_SOURCE "/dev/broker.sh";

// A broker of its own, removed with the program.
class OwnBroker {
public:
    OwnBroker() {
        const std::string directory = place_.path() + "/broker";
        guard_ = popen(("cat >/dev/null; " + kScript + " remove " + directory).c_str(), "we");
        std::FILE *out = popen((kScript + " start " + directory).c_str(), "re");
        int port = 0;
        if (!guard_ || !out || std::fscanf(out, "%d", &port) != 1) port = 0;
        if (out) pclose(out);
        if (port == 0) throw Failure("the broker did not start");
        setenv("HALVO_RELAY_USER", "guest", 1);
        setenv("HALVO_RELAY_PASSWORD", "guest", 1);
        config_.addresses.push_back({"127.0.0.1", port});
    }
    OwnBroker(const OwnBroker &) = delete;
    OwnBroker &operator=(const OwnBroker &) = delete;
    ~OwnBroker() { pclose(guard_); }
    const BrokerConfig &config() const { return config_; }
    void declare(const std::string &queue) const {
        relay::connect_administrator(config_, 0)->declare({queue, false, true, ""});
    }
    const std::string &path() const { return place_.path(); }

private:
    Workplace place_;
    BrokerConfig config_;
    std::FILE *guard_ = nullptr;
};

// halvo-relay at work, as long as this lives.
class Daemon {
public:
    Daemon(const OwnBroker &broker, const std::string &name, const std::string &key, int batch,
           const std::string &route) {
        const std::string path = broker.path() + "/" + name + ".toml";
        std::ofstream(path) << "[relay]\nkey = \"" << key << "\"\nstate = \"" << broker.path()
                            << "\"\n[broker]\nurl = \"amqp://127.0.0.1:"
                            << broker.config().addresses[0].port << "\"\n[[route]]\nname = \""
                            << name << "\"\nbatch = " << batch << "\n"
                            << route << "\n";
        pid_ = fork();
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!std::freopen("/dev/null", "w", stderr)) _exit(127);
        execl(HALVO_BIN "/halvo-relay", "halvo-relay", "run", path.c_str(), nullptr);
        _exit(127);
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;
    ~Daemon() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

FrxChannel open_end(const test::Segment &segment, char side, FrxChannel &end) {
    if (frx_initialize(segment.key_file().c_str()) != ESMS_OK ||
        frx_openChannel(&end, "bench", 0, side, 1000) != ESMS_OK)
        throw Failure("open the channel");
    return end;
}

void finish(Shared &shared, double start, uint32_t count) {
    shared.result.seconds = seconds_now() - start;
    shared.result.first = count / shared.result.seconds;
}

Measured relayed(const test::Segment &here, const test::Segment &there, uint32_t count) {
    return run({[&](Shared &shared) {
                    FrxChannel end;
                    open_end(here, 'w', end);
                    const std::string body(kBody, 'x');
                    shared.meet(2);
                    for (uint32_t i = 0; i < count; ++i)
                        if (frx_write(&end, 1, body.data(), kBody, 10000) != ESMS_OK)
                            throw Failure("frx_write");
                },
                [&](Shared &shared) {
                    FrxChannel end;
                    open_end(there, 'r', end);
                    std::vector<char> slot(static_cast<size_t>(frx_sizeOfBlock(0)));
                    shared.meet(2);
                    const double start = seconds_now();
                    for (uint32_t i = 0; i < count; ++i)
                        if (frx_read(&end, slot.data(), 20000) != static_cast<int>(kBody))
                            throw Failure("frx_read");
                    finish(shared, start, count);
                }});
}

Measured plain(const BrokerConfig &broker, const std::string &queue, uint32_t batch,
               uint32_t count) {
    return run({[&](Shared &shared) {
                    const auto publisher = relay::connect_publisher(broker, 0);
                    const relay::Stop never{false};
                    const std::string body(kBody, 'x');
                    shared.meet(2);
                    for (uint32_t i = 0; i < count; i += batch) {
                        const uint32_t these = std::min(batch, count - i);
                        for (uint32_t k = 0; k < these; ++k)
                            publisher->send(queue, {body, 1, {256, i + k + 1}});
                        for (const relay::Verdict verdict : publisher->answers(20000, 20000, never))
                            if (verdict != relay::Verdict::confirmed) throw Failure("publish");
                    }
                },
                [&](Shared &shared) {
                    const auto consumer = relay::connect_consumer(
                        broker, 0, {queue}, static_cast<int>(std::min(2 * batch, 4096U)));
                    std::vector<relay::Incoming> got;
                    shared.meet(2);
                    const double start = seconds_now();
                    for (uint32_t done = 0; done < count;) {
                        got.clear();
                        consumer->fetch(got, batch, 20000);
                        if (got.empty()) throw Failure("fetch");
                        consumer->acknowledge(got.back().tag);
                        done += static_cast<uint32_t>(got.size());
                    }
                    finish(shared, start, count);
                }});
}

void measure_batch(const Settings &settings, Report &report, const OwnBroker &broker, int batch) {
    const std::string name = "b" + std::to_string(batch);
    for (const char *kind : {"relay", "plain"}) broker.declare(kind + name);
    const auto segment = [&] {
        return test::SegmentBuilder().channel("MT01", 'M', 1024, 128).build();
    };
    const test::Segment here = segment(), there = segment();
    const Daemon out(broker, "out" + name, here.key_file(), batch,
                     "from = \"channel:MT01\"\nto = \"amqp:relay" + name + "\"");
    const Daemon in(broker, "in" + name, there.key_file(), batch,
                    "from = \"amqp:relay" + name + "\"\nto = \"channel:MT01\"");
    std::vector<Contender> all{
        {"relays", [&](uint32_t count) { return relayed(here, there, count); }, 500},
        {"publisher and consumer",
         [&](uint32_t count) {
             return plain(broker.config(), "plain" + name, static_cast<uint32_t>(batch), count);
         },
         500}};
    race(all, settings, report, "relay");
    Row row{};
    row.measure = "relay pair, batch " + std::to_string(batch);
    row.size = std::to_string(kBody);
    row.unit = "msg/s";
    row.goal = kGoal;
    compare(report, row, all[0], all[1], &Measured::first, Better::higher);
}

} // namespace

void measure_relay(const Settings &settings, Report &report) {
    report.begin("relay", "through a broker on loopback, a quorum queue of one node, end to end");
    if (access("/usr/lib/rabbitmq/bin/rabbitmq-server", X_OK) != 0)
        return void(std::puts("no broker here: dev/setup.sh relay installs it"));
    const OwnBroker broker;
    Settings longer = settings; // a broker's pauses are longer than a ring's
    longer.seconds = settings.quick ? 0.3 : 1;
    for (const int batch : kBatches) measure_batch(longer, report, broker, batch);
}

} // namespace halvo::bench
