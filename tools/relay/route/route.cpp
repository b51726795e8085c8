#include "tools/relay/route/route.h"

#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>

#include "tools/relay/base/log.h"

namespace halvo::relay {

namespace {

// A path with the links in its directory resolved, so that two names of one file are one.
std::string resolved(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char real[PATH_MAX];
    if (!realpath(directory.c_str(), real)) return path;
    return std::string(real) + "/" + path.substr(slash == std::string::npos ? 0 : slash + 1);
}

} // namespace

std::string identity_of(const RouteConfig &route, const std::string &key_file) {
    const Endpoint &local = route.local();
    const std::string where = local.kind == Endpoint::channel
                                  ? "channel:" + local.name + " of " + resolved(key_file)
                                  : "fq:" + resolved(local.name);
    return (route.outgoing() ? "from " : "to ") + where;
}

std::string state_path(const std::string &directory, const RouteConfig &route) {
    return directory + "/" + route.name + ".state";
}

Route::Route(const Config &config, const RouteConfig &route)
    : broker_(config.broker), route_(route),
      state_(state_path(config.state_directory, route), identity_of(route, config.key_file)) {
    figures().pid = getpid();
    figures().in_flight = 0;
    figures().rate = 0;
    thread_ = std::thread([this] { run(); });
}

void Route::ask_to_stop() {
    if (!stop_.exchange(true)) log(Level::info, route_.name, "draining", "what is in flight");
}

void Route::stop() {
    if (!thread_.joinable()) return;
    ask_to_stop();
    // A thread may wait for its end of the channel or for a lock of a file queue, which a signal ends.
    while (!ended_) {
        pthread_kill(thread_.native_handle(), SIGUSR1);
        usleep(20000);
    }
    thread_.join();
    figures().phase = static_cast<uint32_t>(Phase::stopped);
    figures().rate = 0;
    figures().pid = 0;
}

void RouteContext::failed(const char *event, const std::string &text) {
    const int64_t pause = stop ? 0 : pauses.next();
    log(Level::warning, route.name, event,
        text + (stop ? "" : "; again in " + std::to_string(pause) + " ms"));
    figures().in_flight = 0;
    enter(Phase::waiting);
    sleep_until(milliseconds_now() + pause, stop);
    ++attempt;
}

void RouteContext::failed(const BrokerError &error) {
    static const char *const events[] = {"connection-lost", "refused", "no-queue", "unacceptable"};
    ++figures().losses;
    failed(events[error.kind()], error.what());
}

void Route::run() {
    RouteContext context{broker_, route_, state_, stop_,
                         Backoff(broker_.pause_first, broker_.pause_most)};
    while (!stop_) {
        try {
            (route_.outgoing() ? carry_out : carry_in)(context);
        } catch (const EndError &error) {
            context.failed("local-end", error.what());
        } catch (const ConfigError &error) {
            context.failed("credentials", error.what());
        } catch (const std::exception &error) {
            log(Level::error, route_.name, "stopped", error.what());
            context.enter(Phase::failed);
            while (!stop_) sleep_until(milliseconds_now() + 1000, stop_);
        }
    }
    ended_ = true;
}

} // namespace halvo::relay
