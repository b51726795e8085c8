// Reading and writing in the slot, bodies alone, and many messages at a time, beside the calls that
// copy whole slots.
#include <vector>

#include "bench/groups/groups.h"
#include "bench/links/links.h"

namespace halvo::bench {

namespace {

constexpr std::array<std::array<uint32_t, 2>, 3> kPlaceSizes{
    {{100, 128}, {1000, 1024}, {4000, 4096}}};
constexpr Shape kNone{};

Shape shape_of(const Settings &settings, const std::array<uint32_t, 2> &size) {
    const Shape shape{size[0], size[1], settings.slots};
    return settings.size.empty() || settings.size == text_of(shape) ? shape : kNone;
}

Contender throughput_of(const Link &link, const Shape &shape) {
    return {link.name, [&link, shape](uint32_t count) { return link.throughput(shape, count); }};
}

void add(Report &report, const char *measure, const Shape &shape, const Contender &ours,
         const Contender &peer, double goal) {
    Row row{};
    row.measure = measure;
    row.size = text_of(shape);
    row.unit = "msg/s";
    row.goal = goal;
    compare(report, row, ours, peer, &Measured::first, Better::higher);
}

void in_place(const Settings &settings, Report &report, const Shape &shape) {
    enum { kOurs, kOursGuarded, kOld, kOldGuarded, kRing, kRingInPlace };
    std::vector<Contender> all;
    for (const Link *link : {&kQInPlace, &kFrxInPlace, &kQ, &kFrx, &kBareRing, &kBareRingInPlace})
        all.push_back(throughput_of(*link, shape));
    race(all, settings, report, "in place " + text_of(shape));
    const bool large = shape.body == kPlaceSizes.back()[0];
    add(report, "q_ in place", shape, all[kOurs], all[kOld], large ? 3.0 : 0);
    add(report, "q_ in place", shape, all[kOurs], all[kRing], large ? 1.0 : 0);
    add(report, "q_ in place", shape, all[kOurs], all[kRingInPlace], 0);
    add(report, "frx_ in place", shape, all[kOursGuarded], all[kOldGuarded], 0);
    add(report, "frx_ in place", shape, all[kOursGuarded], all[kOurs], 0);
}

// One pair of links at one size.
void pair(const Settings &settings, Report &report, const char *measure, const Shape &shape,
          const Link &ours, const Link &old, double goal) {
    if (shape.slots == 0) return;
    std::vector<Contender> all{throughput_of(ours, shape), throughput_of(old, shape)};
    race(all, settings, report, measure);
    add(report, measure, shape, all[0], all[1], goal);
}

// A large message's round trip beside a small one's; a ratio below 1 is how much longer it takes.
void round_trips(const Settings &settings, Report &report) {
    std::vector<Contender> all;
    for (const auto &size : kPlaceSizes) {
        const Shape shape{size[0], size[1], settings.slots};
        all.push_back({text_of(shape),
                       [shape](uint32_t count) { return kQInPlace.round_trip(shape, count); }});
    }
    race(all, settings, report, "round trip in place");
    for (size_t i = 1; i < all.size(); ++i) {
        Row row{};
        row.measure = "q_ in place, round trip";
        row.size = all[i].name;
        row.unit = "ns";
        row.goal = i + 1 == all.size() ? 1 / 1.5 : 0;
        compare(report, row, all[i], all[0], &Measured::first, Better::lower);
    }
}

} // namespace

void measure_in_place(const Settings &settings, Report &report) {
    report.begin("place", "in the slot, 64 bytes touched on each side; bodies alone; 64 at a time");
    for (const auto &size : kPlaceSizes)
        if (const Shape shape = shape_of(settings, size); shape.slots > 0)
            in_place(settings, report, shape);
    if (settings.size.empty()) round_trips(settings, report);
    pair(settings, report, "frx_readBody", shape_of(settings, {100, 1024}), kFrxBody, kFrx, 0);
    pair(settings, report, "frx_writeMany, readMany", shape_of(settings, {100, 128}), kFrxMany, kQ,
         0.9);
}

} // namespace halvo::bench
