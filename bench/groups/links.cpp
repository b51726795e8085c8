// Rings against the queues that carry messages between processes.
#include <utility>
#include <vector>

#include "bench/groups/groups.h"
#include "bench/links/links.h"

namespace halvo::bench {

namespace {

struct Peer {
    const Link &link;
    Goals goals;
};

enum class Kind { throughput, round_trip };

Contender contender(const Link &link, const Shape &shape, Kind kind) {
    const LinkRun run = kind == Kind::throughput ? link.throughput : link.round_trip;
    return {link.name, [run, shape](uint32_t count) { return run(shape, count); }};
}

// The contenders of each size, with what they did.
using Races = std::vector<std::pair<std::string, std::vector<Contender>>>;

// Ours against peers at every size: shows the first value of each, which is the rate or the median.
Races against(const Settings &settings, Report &report, const std::string &measure,
              const Link &ours, const std::vector<Peer> &peers, Kind kind) {
    Races races;
    for (size_t i = 0; i < kSizes.size(); ++i) {
        const Shape shape{kSizes[i][0], kSizes[i][1], settings.slots};
        if (!settings.size.empty() && settings.size != text_of(shape)) continue;
        std::vector<Contender> all{contender(ours, shape, kind)};
        for (const Peer &peer : peers) all.push_back(contender(peer.link, shape, kind));
        race(all, settings, report, measure + " " + text_of(shape));
        for (size_t peer = 0; peer < peers.size(); ++peer) {
            Row row{};
            row.measure = measure;
            row.size = text_of(shape);
            row.unit = kind == Kind::throughput ? "msg/s" : "ns";
            row.goal = peers[peer].goals[i];
            compare(report, row, all[0], all[peer + 1], &Measured::first,
                    kind == Kind::throughput ? Better::higher : Better::lower);
        }
        races.emplace_back(text_of(shape), std::move(all));
    }
    return races;
}

void round_trips(const Settings &settings, Report &report, const std::string &measure,
                 const Link &ours, const std::vector<Peer> &peers) {
    const Races races = against(settings, report, measure + " p50", ours, peers, Kind::round_trip);
    for (const auto &[size, all] : races)
        for (size_t peer = 1; peer < all.size(); ++peer) {
            Row row{};
            row.measure = measure + " p99";
            row.size = size;
            row.unit = "ns";
            compare(report, row, all[0], all[peer], &Measured::second, Better::lower);
        }
}

} // namespace

void measure_ring(const Settings &settings, Report &report) {
    report.begin("ring", "messages per second from process to process");
    constexpr Goals kKernel{5, 5, 5, 5};
    against(settings, report, "q_ throughput", kQ,
            {{kPipe, {4, 4, 5, 5}},
             {kSeqpacket, kKernel},
             {kPosixMq, kKernel},
             {kSysvMsg, kKernel},
             {kBoostMq, kKernel},
             {kBoostSpsc, kNoGoals}, // limits of the layout: docs/performance.md
             {kBareRing, {0, 0, 1.8, 0.95}},
             {kMemoryCopy, kNoGoals}},
            Kind::throughput);
    against(settings, report, "frx_ throughput", kFrx, {{kPipe, {2.3, 2.0, 2.5, 4.0}}},
            Kind::throughput);
}

void measure_round_trip(const Settings &settings, Report &report) {
    report.begin("trip", "one message there and back; a ratio of 2 is half the time");
    round_trips(settings, report, "q_ busy", kQ, {{kBareRing, {0.8, 0.95, 1.0, 1.1}}});
    constexpr Goals kBlocking{12, 11, 0, 0}; // the bare ring would miss 9 and 6
    round_trips(settings, report, "frx_ blocking", kFrx,
                {{kPipe, kBlocking},
                 {kSeqpacket, kBlocking},
                 {kPosixMq, kBlocking},
                 {kSysvMsg, kBlocking},
                 {kBoostMq, kBlocking}});
}

void measure_wake(const Settings &settings, Report &report) {
    report.begin("wake", "there and back when both sides sleep whenever they are woken");
    std::vector<Contender> all;
    for (const auto &size : kSizes) {
        const Shape shape{size[0], size[1], settings.slots};
        all.push_back(
            {text_of(shape), [shape](uint32_t count) { return frx_wake(shape, count); }, 200});
    }
    const size_t ours = all.size();
    const auto bare = [](Measured (*wake)(const Shape &, uint32_t)) {
        return [wake](uint32_t count) { return wake(Shape{}, count); };
    };
    all.push_back({"semop wake", bare(semop_wake), 200});
    all.push_back({"futex wake", bare(futex_wake), 200});
    race(all, settings, report, "wake");
    for (size_t peer = ours; peer < all.size(); ++peer)
        for (size_t i = 0; i < ours; ++i) {
            Row row{};
            row.measure = "frx_ asleep p50";
            row.size = all[i].name;
            row.unit = "ns";
            row.goal = peer == ours ? 0.95 : 0;
            compare(report, row, all[i], all[peer], &Measured::first, Better::lower);
        }
}

} // namespace halvo::bench
