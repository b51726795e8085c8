// Cost that must stay the same while the work grows.
#include <sys/stat.h>

#include "bench/groups/groups.h"
#include "bench/links/links.h"
#include "bench/stores/stores.h"
#include "bench/workplace.h"

namespace halvo::bench {

namespace {

constexpr double kGoal = 0.9; // within ten per cent

using OpenRun = Measured (*)(const Shape &, uint32_t count, int channels, size_t used);

// One busy channel among open ones: the first of them, so that all lie alike across cache lines, and
// for comparison another one.
void with_open_channels(const Settings &settings, Report &report, const std::string &measure,
                        OpenRun run) {
    struct Case {
        int open;
        size_t used;
    };
    constexpr Case kCases[] = {{1, 0}, {16, 0}, {200, 0}, {16, 8}, {200, 101}};
    const Shape shape{1000, 1024, settings.slots};
    std::vector<Contender> all;
    for (const Case &each : kCases) {
        std::string name = std::to_string(each.open) + " open";
        if (each.used) name += " #" + std::to_string(each.used);
        all.push_back(
            {name, [=](uint32_t count) { return run(shape, count, each.open, each.used); }});
    }
    race(all, settings, report, measure);
    Row row{};
    row.measure = measure;
    row.unit = "msg/s";
    for (size_t i = 1; i < all.size(); ++i) {
        row.size = all[i].name;
        row.goal = kCases[i].used ? 0 : kGoal;
        compare(report, row, all[i], all[0], &Measured::first, Better::higher);
    }
}

void with_backlog(const Settings &settings, Report &report) {
    const Workplace place;
    std::vector<Contender> all;
    for (const int64_t backlog : {int64_t{10}, settings.backlog}) {
        const std::string name = std::to_string(backlog) + " items";
        const std::string path = place.path() + "/" + std::to_string(backlog);
        mkdir(path.c_str(), 0700);
        fill_queue(path, backlog);
        all.push_back({name, [path](uint32_t count) { return turn_over(path, count); }});
    }
    race(all, settings, report, "backlog");
    Row row{};
    row.measure = "file queue in and out";
    row.size = all[1].name;
    row.unit = "item/s";
    row.goal = kGoal;
    compare(report, row, all[1], all[0], &Measured::first, Better::higher);
}

} // namespace

void measure_flat(const Settings &settings, Report &report) {
    report.begin("flat", "the same work beside more open channels, or behind a longer backlog");
    with_open_channels(settings, report, "q_ throughput", q_throughput_with_open);
    with_open_channels(settings, report, "frx_ throughput", frx_throughput_with_open);
    try {
        with_backlog(settings, report);
    } catch (const Failure &failure) {
        report.fail("backlog", failure.what());
    }
}

} // namespace halvo::bench
