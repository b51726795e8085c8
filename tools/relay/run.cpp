// halvo-relay run: keeps the routes of a configuration going until a signal ends it.
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "halvo/frx.h"
#include "tools/frame/attachment.h"
#include "tools/frame/files.h"
#include "tools/frame/program.h"
#include "tools/relay/base/log.h"
#include "tools/relay/metrics.h"
#include "tools/relay/notify.h"
#include "tools/relay/relay.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

namespace {

class Relay {
public:
    explicit Relay(const std::string &path) : path_(path), config_(load_config(path)) {
        log_as_json(config_.json_log);
        if (!config_.key_file.empty()) attach(config_.key_file);
    }
    ~Relay() { stop_all(); }

    void start();
    void tick(); // once a second
    void reload();
    std::string metrics();

private:
    void settle_routes(const Config &wanted);
    std::unique_ptr<MetricsServer> metrics_server(const std::string &where);
    void write_metrics();
    void stop_all();

    const std::string path_;
    Config config_;
    std::mutex mutex_; // of the routes: the metrics' thread looks at them
    std::map<std::string, std::unique_ptr<Route>> routes_;
    std::map<std::string, uint64_t> counts_; // of messages, a second ago
    int64_t ticked_ = 0;                     // milliseconds
    std::unique_ptr<MetricsServer> server_;
    bool told_metrics_fault_ = false;
};

void Relay::start() {
    for (const RouteConfig &route : config_.routes)
        routes_[route.name] = std::make_unique<Route>(config_, route);
    server_ = metrics_server(config_.metrics);
    log(Level::info, "", "started", std::to_string(routes_.size()) + " routes of " + path_);
}

std::unique_ptr<MetricsServer> Relay::metrics_server(const std::string &where) {
    if (where.empty() || where.rfind("file:", 0) == 0) return nullptr;
    return std::make_unique<MetricsServer>(where, [this] { return metrics(); });
}

std::string Relay::metrics() {
    const std::lock_guard hold(mutex_);
    std::vector<RouteFigures> all;
    for (const auto &[name, route] : routes_) all.push_back({&route->config(), &route->figures()});
    return metrics_text(all);
}

void Relay::tick() {
    const int64_t now = milliseconds_now();
    for (const auto &[name, route] : routes_) {
        Figures &figures = route->figures();
        const uint64_t count = figures.messages,
                       before = counts_.count(name) ? counts_[name] : count;
        if (now > ticked_)
            figures.rate = (count - before) * 1000000 / static_cast<uint64_t>(now - ticked_);
        counts_[name] = count;
    }
    ticked_ = now;
    write_metrics();
}

void Relay::write_metrics() {
    if (config_.metrics.rfind("file:", 0) != 0) return;
    const bool failed = !tools::replace_file(config_.metrics.substr(5), metrics());
    if (failed && !told_metrics_fault_)
        log(Level::warning, "", "metrics", config_.metrics + ": " + std::strerror(errno));
    told_metrics_fault_ = failed;
}

// Routes that are as they were go on; the others end, with what they have in flight, and begin anew.
void Relay::settle_routes(const Config &wanted) {
    std::map<std::string, const RouteConfig *> by_name;
    for (const RouteConfig &route : wanted.routes) by_name[route.name] = &route;
    const bool same_broker = wanted.broker == config_.broker;
    std::map<std::string, std::unique_ptr<Route>> ending;
    for (auto it = routes_.begin(); it != routes_.end();) {
        const auto found = by_name.find(it->first);
        if (same_broker && found != by_name.end() && *found->second == it->second->config()) {
            ++it;
            continue;
        }
        it->second->ask_to_stop();
        const std::lock_guard hold(mutex_);
        ending[it->first] = std::move(it->second);
        it = routes_.erase(it);
    }
    ending.clear();
    config_.broker = wanted.broker;
    config_.routes = wanted.routes;
    for (const RouteConfig &route : config_.routes) {
        if (routes_.count(route.name)) continue;
        try {
            auto made = std::make_unique<Route>(config_, route);
            const std::lock_guard hold(mutex_);
            routes_[route.name] = std::move(made);
        } catch (const StateError &error) {
            log(Level::error, route.name, "stopped", error.what());
        }
    }
}

void Relay::reload() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    notify("RELOADING=1\nMONOTONIC_USEC=" +
           std::to_string(int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000));
    try {
        const Config wanted = load_config(path_);
        if (wanted.key_file != config_.key_file ||
            wanted.state_directory != config_.state_directory)
            throw ConfigError(path_ + ": another key or state directory needs a new start");
        const bool other_metrics = wanted.metrics != config_.metrics;
        auto server = other_metrics ? metrics_server(wanted.metrics) : nullptr; // may be refused
        settle_routes(wanted);
        log_as_json(wanted.json_log);
        if (other_metrics) {
            server_ = std::move(server);
            config_.metrics = wanted.metrics;
        }
        config_.json_log = wanted.json_log;
        log(Level::info, "", "reloaded", std::to_string(routes_.size()) + " routes of " + path_);
    } catch (const ConfigError &error) {
        log(Level::error, "", "not-reloaded",
            std::string(error.what()) + "; all goes on as it was");
    }
    notify("READY=1");
}

void Relay::stop_all() {
    server_.reset();
    for (const auto &[name, route] : routes_) route->ask_to_stop(); // all at once
    for (const auto &[name, route] : routes_) route->stop();
    if (ticked_ != 0) write_metrics(); // a file must not go on saying that they run
    routes_.clear();
}

sigset_t control_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, number);
    return set;
}

// Every thread inherits what is blocked here.
void prepare_signals() {
    const sigset_t set = control_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without SA_RESTART: it ends a wait
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

void serve(Relay &relay) {
    const sigset_t set = control_signals();
    for (;;) {
        const timespec second{1, 0};
        const int number = sigtimedwait(&set, nullptr, &second);
        if (number == SIGHUP) relay.reload();
        if (number == SIGTERM || number == SIGINT) return;
        relay.tick();
    }
}

} // namespace

void attach(const std::string &key_file) {
    if (const std::string fault = tools::attach_fault(key_file, true); !fault.empty())
        throw ConfigError(fault);
    const int attached = frx_initialize(key_file.c_str());
    if (attached != ESMS_OK) throw ConfigError(key_file + ": " + tools::result_text(attached));
}

int run(const std::string &config_path) {
    prepare_signals();
    log_library_lines();
    try {
        Relay relay(config_path);
        relay.start();
        relay.tick();
        notify("READY=1");
        serve(relay);
        notify("STOPPING=1");
        log(Level::info, "", "stopping", "on a signal");
    } catch (const std::runtime_error &error) { // of configuration, state file or metrics
        log(Level::error, "", "not-started", error.what());
        return tools::kUsage;
    }
    log(Level::info, "", "stopped", "nothing is in flight");
    return tools::kDone;
}

} // namespace halvo::relay
