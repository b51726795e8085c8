// Java programs at both ends of a channel, against C programs.
#include <unistd.h>

#include <cstdio>

#include "bench/groups/groups.h"
#include "bench/links/halvo.h"
#include "bench/links/links.h"

namespace halvo::bench {

namespace {

#ifdef HALVO_JAVA

constexpr uint32_t kVmWarmUp = 300000; // until the VMs have compiled what is timed

// Messages per second between two VMs, by the natives, the single calls or the transactions.
Measured between_vms(const Shape &shape, const char *how, uint32_t wanted) {
    const uint32_t count = (wanted + 99) / 100 * 100;
    const HalvoLink link(shape, 1);
    const std::string result = link.key_file() + ".took";
    const auto vm = [&](const char *side) {
        return [&, side](Shared &) {
            for (const char *name : {"JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"})
                unsetenv(name);
            execute({HALVO_JAVA, "-Xmx64m", "-cp", HALVO_CLASS_PATH,
                     "-Dhalvoipc.library=" HALVO_LIBRARY, "Traffic", link.key_file(), "L0", side,
                     std::to_string(kVmWarmUp), std::to_string(count), std::to_string(shape.body),
                     result, how});
        };
    };
    run({vm("write"), vm("read")});
    double all = 0, each = 0; // nanoseconds
    std::FILE *file = std::fopen(result.c_str(), "re");
    if (!file || std::fscanf(file, "%lf %lf", &all, &each) != 2) each = 0;
    if (file) std::fclose(file);
    if (each <= 0) throw Failure("the VM left no result");
    return {all * 1e-9, 1e9 / each, 0};
}

#endif

} // namespace

void measure_java(const Settings &settings, Report &report) {
#ifdef HALVO_JAVA
    struct Way {
        const char *how, *measure;
        double goals[2]; // for short and for long messages
    };
    constexpr Way kWays[] = {{"natives", "Java write/read throughput", {0, 0.6}},
                             {"single", "Java Channel write/read throughput", {0, 0}},
                             {"transactions", "Java Batch/Marked of 100 throughput", {0.7, 0.85}}};
    report.begin("java", "messages per second between two VMs, against the C path");
    const Shape shapes[] = {{100, 128, settings.slots}, {1000, 1024, settings.slots}};
    for (int i = 0; i < 2; ++i) {
        const Shape shape = shapes[i];
        std::vector<Contender> all;
        for (const Way &way : kWays)
            all.push_back(
                {way.measure,
                 [shape, &way](uint32_t count) { return between_vms(shape, way.how, count); },
                 300000});
        all.push_back(
            {"frx_ in C", [shape](uint32_t count) { return kFrx.throughput(shape, count); }});
        race(all, settings, report, "java");
        for (size_t way = 0; way < std::size(kWays); ++way) {
            Row row{};
            row.measure = kWays[way].measure;
            row.size = text_of(shape);
            row.unit = "msg/s";
            row.goal = kWays[way].goals[i];
            compare(report, row, all[way], all.back(), &Measured::first, Better::higher);
        }
    }
#else
    (void)settings;
    std::printf("\n== java: built without Java\n");
    (void)report;
#endif
}

} // namespace halvo::bench
