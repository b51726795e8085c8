// halvo-relay status: the figures of all routes, from their state files; no relay need run.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "tools/frame/program.h"
#include "tools/frame/text.h"
#include "tools/relay/metrics.h"
#include "tools/relay/relay.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

namespace {

using Row = std::vector<std::string>;

std::string age_of(int64_t time) {
    if (time == 0) return "-";
    const int64_t age = std::max<int64_t>(0, static_cast<int64_t>(std::time(nullptr)) - time);
    return std::to_string(age) + " s";
}

Row row_of(const RouteConfig &route, const Figures &f, bool running) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.0f/s", static_cast<double>(f.rate.load()) / 1000);
    const auto text = [](auto &number) { return std::to_string(number.load()); };
    // A relay that was killed left the state that it was in.
    return {route.name,
            text_of(route.from),
            text_of(route.to),
            running ? name_of(static_cast<Phase>(f.phase.load())) : "not running",
            text(f.messages),
            running ? rate : "-",
            running ? text(f.in_flight) : "-",
            running && f.lag >= 0 ? text(f.lag) : "-",
            text(f.repeats),
            text(f.dead_letters),
            text(f.missing),
            text(f.losses),
            age_of(f.last)};
}

} // namespace

int show_status(const std::string &config_path, bool as_metrics) {
    try {
        const Config config = load_config(config_path);
        std::vector<Row> rows{{"ROUTE", "FROM", "TO", "STATE", "MESSAGES", "RATE", "IN-FLIGHT",
                               "LAG", "REPEATS", "DEAD-LETTERS", "MISSING", "CONNECTION-LOST",
                               "LAST"}};
        std::vector<std::unique_ptr<Figures>> figures;
        std::vector<RouteFigures> all;
        for (const RouteConfig &route : config.routes) {
            bool running = false;
            auto found = read_figures(state_path(config.state_directory, route),
                                      identity_of(route, config.key_file), running);
            if (!found) found = std::make_unique<Figures>();
            rows.push_back(row_of(route, *found, running));
            if (!running) found->phase = static_cast<uint32_t>(Phase::stopped);
            all.push_back({&route, found.get()});
            figures.push_back(std::move(found));
        }
        tools::write_out(1, "standard output",
                         as_metrics ? metrics_text(all) : tools::aligned(rows));
        return tools::kDone;
    } catch (const tools::ToolError &error) {
        std::fprintf(stderr, "halvo-relay: %s\n", error.what());
        return error.status();
    } catch (const std::runtime_error &error) {
        std::fprintf(stderr, "halvo-relay: %s\n", error.what());
        return tools::kUsage;
    }
}

} // namespace halvo::relay
