// halvo-relay check: looks at everything that the routes need, and changes nothing.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "core/base/process.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "tools/frame/program.h"
#include "tools/frame/text.h"
#include "tools/relay/rabbit/broker.h"
#include "tools/relay/relay.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

namespace {

class Checker {
public:
    Checker(const Config &config, bool declare, int output)
        : config_(config), declare_(declare), output_(output) {}
    int check();

private:
    void say(const std::string &line) { tools::write_out(output_, "standard output", line + "\n"); }
    void fine(const std::string &text) { say("ok     " + text); }
    void note(const std::string &text) { say("note   " + text); }
    void fault(const std::string &text) {
        say("FAULT  " + text);
        ++faults_;
    }
    void check_broker();
    void check_route(const RouteConfig &route);
    void check_local(const RouteConfig &route);
    void check_directory(const std::string &path, const std::string &what);
    void check_state(const RouteConfig &route);
    void check_queue(const QueuePlan &plan);
    void check_rights(const RouteConfig &route);

    const Config &config_;
    const bool declare_;
    const int output_;
    std::unique_ptr<Administrator> broker_;
    std::set<std::string> ends_;
    int faults_ = 0;
};

int Checker::check() {
    if (!config_.key_file.empty()) {
        attach(config_.key_file);
        fine("segment of " + config_.key_file);
    }
    check_directory(config_.state_directory + "/", "state files");
    check_broker();
    for (const RouteConfig &route : config_.routes) check_route(route);
    say(faults_ == 0 ? "no faults" : std::to_string(faults_) + " faults");
    return faults_ == 0 ? tools::kDone : tools::kFailed;
}

// Every address must be there; the last one that answers is asked about the queues.
void Checker::check_broker() {
    for (unsigned i = 0; i < config_.broker.addresses.size(); ++i) {
        const Address &address = config_.broker.addresses[i];
        try {
            broker_ = connect_administrator(config_.broker, i);
            fine("broker " + address.host + ":" + std::to_string(address.port) +
                 (config_.broker.tls ? " by TLS" : ""));
        } catch (const std::runtime_error &error) {
            fault(std::string("broker: ") + error.what());
        }
    }
}

void Checker::check_route(const RouteConfig &route) {
    say("route " + route.name + ": " + text_of(route.from) + " to " + text_of(route.to));
    check_local(route);
    check_state(route);
    check_directory(route.dead_letters, "dead letters");
    if (!broker_) return;
    try {
        for (const std::string &queue : route.queues())
            check_queue({queue, route.classic, route.single_active, route.dead_letter_queue});
        if (!route.dead_letter_queue.empty())
            check_queue({route.dead_letter_queue, route.classic, false, ""});
        if (!route.outgoing() && route.dead_letter_queue.empty())
            note("no dead_letter_queue: a message that does not fit goes to the file queue " +
                 route.dead_letters);
        check_rights(route);
    } catch (const BrokerError &error) {
        fault(error.what());
    }
}

void Checker::check_local(const RouteConfig &route) {
    if (!ends_.insert(identity_of(route, config_.key_file)).second)
        fault("another route has the same end: " + text_of(route.local()));
    if (route.local().kind == Endpoint::file_queue)
        return check_directory(route.local().name, "file queue");
    const int number = frx_channelByName(route.local().name.c_str());
    if (number < 0) return fault("the segment has no channel " + route.local().name);
    fine("channel " + route.local().name + ": messages of up to " +
         std::to_string(frx_sizeOfData(number)) + " bytes, " +
         std::to_string(frx_countOfBlocks(number)) + " at a time, " +
         std::to_string(frx_getCount(number)) + " waiting");
    const halvo_channel *q = q_chnnl2q(number);
    const int32_t pid = route.outgoing() ? q->pidg : q->pidp;
    const auto &field = route.outgoing() ? q->gname : q->pname;
    const std::string name = tools::printable(field, sizeof field);
    if (is_alive(pid) && name != "halvo-relay")
        note("process " + std::to_string(pid) + " (" + name +
             ") was the last at that end, and lives");
}

void Checker::check_directory(const std::string &path, const std::string &what) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    if (access(directory.c_str(), W_OK | X_OK) != 0)
        fault(what + ": " + directory + ": " + std::strerror(errno));
}

void Checker::check_state(const RouteConfig &route) {
    const std::string path = state_path(config_.state_directory, route);
    bool running = false;
    try {
        if (read_figures(path, identity_of(route, config_.key_file), running))
            fine("state file " + path + (running ? ", in use by a relay" : ""));
    } catch (const StateError &error) {
        fault(error.what());
    }
}

void Checker::check_queue(const QueuePlan &plan) {
    int64_t depth = broker_->depth(plan.name);
    const bool stood = depth >= 0;
    if (!stood && !declare_)
        return fault("the broker has no queue " + plan.name + "; check --declare makes it");
    try {
        // Where the queue stands this compares, and changes nothing.
        broker_->declare(plan);
        if (!stood) depth = broker_->depth(plan.name);
        fine("queue " + plan.name + (stood ? ": " : " declared: ") + std::to_string(depth) +
             " messages");
    } catch (const BrokerError &error) {
        const std::string text = error.what();
        if (error.kind() == BrokerError::denied)
            note("queue " + plan.name + " could not be compared with the configuration: " + text);
        else if (error.kind() != BrokerError::unacceptable)
            throw;
        else if (text.find("x-overflow") != std::string::npos)
            fault("queue " + plan.name + " drops or refuses messages when it is full: " + text);
        else
            fault("queue " + plan.name + " is not as the configuration says: " + text);
    }
}

void Checker::check_rights(const RouteConfig &route) {
    if (route.outgoing()) {
        broker_->try_to_publish();
        return fine("right to publish");
    }
    for (const std::string &queue : route.queues()) {
        const int64_t depth = broker_->depth(queue);
        if (depth == 0) {
            broker_->try_to_read(queue);
            fine("right to read " + queue);
        } else if (depth > 0) {
            note("the right to read " + queue + " is not tried: it has messages");
        }
    }
}

} // namespace

int check(const std::string &config_path, bool declare) {
    const tools::LibraryMessages messages;
    try {
        const Config config = load_config(config_path);
        return Checker(config, declare, messages.standard_output()).check();
    } catch (const ConfigError &error) {
        std::fprintf(stderr, "halvo-relay: %s\n", error.what());
        return tools::kUsage;
    } catch (const BrokerError &error) {
        std::fprintf(stderr, "halvo-relay: %s\n", error.what());
        return tools::kFailed;
    } catch (const tools::ToolError &error) {
        std::fprintf(stderr, "halvo-relay: %s\n", error.what());
        return error.status();
    }
}

} // namespace halvo::relay
