// A stream through two relays and a broker while all three are killed: the ledger must show each
// message once, in order. The short form kills each relay three times and the broker once.
#include <thread>

#include "tests/proof/form.h"
#include "tests/relay/relay_fixture.h"

using namespace halvo::test;

namespace {

const std::string kOther =
    access(HALVO_OTHER_BIN "/halvo-relay", X_OK) == 0 ? HALVO_OTHER_BIN : HALVO_BIN;

// Kills while the stream runs, at moments of no rhythm, and starts again.
void kill_around(Broker &broker, Machine &here, Machine &there, int rounds, int of_broker) {
    std::mt19937 random(seed());
    const auto pause = [&](int most) {
        usleep(static_cast<useconds_t>(1000U * (100 + random() % static_cast<unsigned>(most))));
    };
    for (int i = 0; i < rounds; ++i) {
        for (Machine *machine : {&here, &there}) {
            pause(400);
            machine->kill();
            machine->start();
        }
        if ((i + 1) % (rounds / of_broker) == 0) {
            pause(400);
            broker.kill();
            broker.start();
        }
    }
}

void judge(const std::string &what, const Ledger &ledger, int messages) {
    figure(what + "messages lost", "0", ledger.lost);
    figure(what + "messages doubled", "0", ledger.doubled);
    figure(what + "messages reordered", "0", ledger.reordered);
    expect_perfect(ledger, messages);
}

void end(const Machine &here, const Machine &there) {
    if (testing::Test::HasFailure())
        std::fprintf(stderr, "%s\n----\n%s\n", here.log().c_str(), there.log().c_str());
    EXPECT_EQ(here.end() + there.end(), 0);
}

const char *const kOut = "from = \"channel:MT01\"\nto = \"amqp:mt01\"";
const char *const kIn = "from = \"amqp:mt01\"\nto = \"channel:MT01\"";

} // namespace

TEST(RelayKills, nothing_is_lost_doubled_or_reordered) {
    if (!Broker::is_installed()) GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
    const int rounds = length(3, 20), of_broker = length(1, 5), messages = length(45000, 300000);
    Broker broker;
    Machine here(url_of(broker), HALVO_BIN), there(url_of(broker), kOther);
    here.route(kOut);
    there.route(kIn);
    here.declare();
    NumberReader reader(there.segment(), messages, messages);
    const auto writer = write_numbers(here.segment(), 1, messages);
    here.start();
    there.start();
    kill_around(broker, here, there, rounds, of_broker);
    const int64_t at_last_kill = there.figure("messages_total");
    EXPECT_EQ(writer->wait(), 0);
    const Ledger ledger = reader.result();
    const std::string what = std::to_string(rounds) + " kills of each relay, " +
                             std::to_string(of_broker) + " of the broker: ";
    judge(what, ledger, messages);
    figure(what + "repeats dropped", "-", there.figure("repeats_total"));
    figure(what + "messages when the last kill came, of " + std::to_string(messages), "-",
           at_last_kill);
    end(here, there);
}

// Three nodes with quorum queues; one of them, which may hold the queue's leader and the relays'
// connections, is killed and comes back.
TEST(RelayKills, a_cluster_that_loses_a_node_loses_no_message) {
    if (!Broker::is_installed()) GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
    if (!is_long_form()) GTEST_SKIP() << "three nodes take memory and time: in make stress alone";
    constexpr int kMessages = 150000, kKilled = 2;
    const std::string mapper = std::to_string(free_port());
    std::vector<std::unique_ptr<Broker>> nodes(3);
    std::vector<std::thread> starts;
    for (size_t i = 0; i < nodes.size(); ++i)
        starts.emplace_back([&nodes, &mapper, i] {
            nodes[i] = std::make_unique<Broker>(
                std::vector<std::string>{},
                std::map<std::string, std::string>{
                    {"BROKER_NAME", "n" + std::to_string(i) + "x" + mapper},
                    {"BROKER_NODES", "n0x" + mapper + " n1x" + mapper + " n2x" + mapper},
                    {"BROKER_COOKIE", "c" + mapper},
                    {"BROKER_MAPPER", mapper}});
        });
    for (std::thread &start : starts) start.join();
    std::string urls;
    for (const auto &node : nodes) urls += (urls.empty() ? "" : ", ") + url_of(*node);
    Machine here(urls, HALVO_BIN), there(urls, kOther);
    here.route(kOut);
    there.route(kIn);
    here.declare();
    NumberReader reader(there.segment(), kMessages, kMessages);
    const auto writer = write_numbers(here.segment(), 1, kMessages);
    const int64_t began = milliseconds_now();
    here.start();
    there.start();
    for (int i = 0; i < kKilled; ++i) {
        EXPECT_TRUE(there.reaches("messages_total", kMessages / 4 * (i + 1)));
        Broker &node = *nodes[static_cast<size_t>(i)];
        node.kill();
        usleep(3000000); // the others elect a leader meanwhile
        node.start();
    }
    EXPECT_EQ(writer->wait(), 0);
    const Ledger ledger = reader.result();
    const int64_t took = milliseconds_now() - began;
    judge("cluster of three, two nodes killed in turn: ", ledger, kMessages);
    figure("cluster of three: messages a second, kills and all", "-",
           kMessages * int64_t{1000} / took);
    figure("cluster of three: repeats dropped", "-", there.figure("repeats_total"));
    end(here, there);
}
