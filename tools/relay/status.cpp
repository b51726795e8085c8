// halvo-relay status: the figures of all routes, from their state files; no relay need run.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <vector>

#include "tools/frame/program.h"
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

std::string table_text(const std::vector<Row> &rows) {
    std::vector<size_t> widths(rows.front().size());
    for (const Row &row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string text;
    for (const Row &row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            if (i + 1 < row.size()) text.append(widths[i] - row[i].size() + 2, ' ');
        }
        text += "\n";
    }
    return text;
}

// Calls use(route, figures, running) for each route; figures are zeros without a state file.
template <class Use>
void each_route(const Config &config, Use use) {
    for (const RouteConfig &route : config.routes) {
        struct Call {
            Use &use;
            const RouteConfig &route;
            bool running = false;
        } call{use, route};
        const bool found = read_figures(
            state_path(config.state_directory, route), identity_of(route, config.key_file),
            call.running,
            [](const Figures &figures, void *context) {
                auto &to = *static_cast<Call *>(context);
                to.use(to.route, figures, to.running);
            },
            &call);
        static const Figures none{};
        if (!found) use(route, none, false);
    }
}

} // namespace

int show_status(const std::string &config_path, bool as_metrics) {
    try {
        const Config config = load_config(config_path);
        std::vector<Row> rows{{"ROUTE", "FROM", "TO", "STATE", "MESSAGES", "RATE", "IN-FLIGHT",
                               "LAG", "REPEATS", "DEAD-LETTERS", "MISSING", "CONNECTION-LOST",
                               "LAST"}};
        std::vector<std::unique_ptr<Figures>> copies;
        std::vector<RouteFigures> all;
        each_route(config, [&](const RouteConfig &route, const Figures &figures, bool running) {
            rows.push_back(row_of(route, figures, running));
            copies.push_back(std::make_unique<Figures>());
            std::memcpy(static_cast<void *>(copies.back().get()), &figures, sizeof figures);
            if (!running) copies.back()->phase = static_cast<uint32_t>(Phase::stopped);
            all.push_back({&route, copies.back().get()});
        });
        tools::write_out(1, "standard output", as_metrics ? metrics_text(all) : table_text(rows));
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
