// A route: a thread that carries messages one way until it is asked to stop, whatever fails.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include "tools/relay/base/state.h"
#include "tools/relay/rabbit/broker.h"
#include "tools/relay/route/ends.h"

namespace halvo::relay {

constexpr int kWaitMilliseconds = 200;    // for messages, before the connection is looked after
constexpr int kDrainMilliseconds = 10000; // for the answers to the last batch

// What is done once a route is stopped for good: on_poison = "stop", a foreign state file.
class RouteFailed : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the thread of a route works with.
struct RouteContext {
    const BrokerConfig &broker;
    const RouteConfig &route;
    StateFile &state;
    const Stop &stop;
    Backoff pauses;
    unsigned attempt = 0; // of a connection

    Figures &figures() const { return state.figures(); }
    void enter(Phase phase) const { figures().phase = static_cast<uint32_t>(phase); }
    // Tells of a failure and pauses, longer each time until pauses.reset().
    void failed(const char *event, const std::string &text);
    void failed(const BrokerError &error);
};

// Carries messages until it is asked to stop, over as many connections as it takes. Throws EndError
// when the local end has to be opened anew, RouteFailed, and ConfigError for unusable credentials.
void carry_out(RouteContext &context);
void carry_in(RouteContext &context);

// The identity of a route's state file.
std::string identity_of(const RouteConfig &route, const std::string &key_file);
std::string state_path(const std::string &directory, const RouteConfig &route);

class Route {
public:
    // Opens the state file, throws StateError; then runs.
    Route(const Config &config, const RouteConfig &route);
    ~Route() { stop(); }
    Route(const Route &) = delete;
    Route &operator=(const Route &) = delete;

    const RouteConfig &config() const { return route_; }
    Figures &figures() { return state_.figures(); }
    void ask_to_stop();
    void stop(); // asks, and waits until what is in flight has arrived or can be sent again

private:
    void run();
    const BrokerConfig broker_;
    const RouteConfig route_;
    StateFile state_;
    Stop stop_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

} // namespace halvo::relay
