// The figures of all routes as Prometheus text: served on the loopback, or written to a file.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/base/posix.h"
#include "tools/relay/base/config.h"
#include "tools/relay/base/state.h"

namespace halvo::relay {

struct RouteFigures {
    const RouteConfig *route;
    const Figures *figures;
};
std::string metrics_text(const std::vector<RouteFigures> &routes);

// Answers GET /metrics at "127.0.0.1:PORT" or "[::1]:PORT". Throws ConfigError for any other address,
// and when it cannot listen there.
class MetricsServer {
public:
    MetricsServer(const std::string &address, std::function<std::string()> text);
    ~MetricsServer();
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;

private:
    void run();
    void answer(int client);
    std::function<std::string()> text_;
    Descriptor listener_, end_;
    std::thread thread_;
};

} // namespace halvo::relay
