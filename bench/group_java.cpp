// Java programs at both ends of a channel, against C programs.
#include <unistd.h>

#include <cstdio>

#include "bench/groups.h"
#include "bench/halvo_links.h"
#include "bench/links.h"

namespace halvo::bench {

namespace {

#ifdef HALVO_JAVA

constexpr uint32_t kVmWarmUp = 300000; // until the VMs have compiled what is timed

// Messages per second between two VMs.
Measured between_vms(const Shape &shape, uint32_t wanted) {
    const uint32_t count = (wanted + 99) / 100 * 100;
    const HalvoLink link(shape, 1);
    const std::string result = link.key_file() + ".took";
    const auto vm = [&](const char *side) {
        return [&, side](Shared &) {
            for (const char *name : {"JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"})
                unsetenv(name);
            execute({HALVO_JAVA, "-Xmx64m", "-cp", HALVO_CLASS_PATH,
                     "-Dhalvoipc.library=" HALVO_LIBRARY, "Traffic", link.key_file(), "0", side,
                     std::to_string(kVmWarmUp), std::to_string(count), std::to_string(shape.body),
                     result});
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
    report.begin("java", "messages per second between two VMs, against the C path");
    const Shape shape{1000, 1024, settings.slots};
    std::vector<Contender> all;
    all.push_back({"Java", [shape](uint32_t count) { return between_vms(shape, count); }, 300000});
    all.push_back({"frx_ in C", [shape](uint32_t count) { return kFrx.throughput(shape, count); }});
    race(all, settings, report, "java");
    Row row{};
    row.measure = "Java write/read throughput";
    row.size = text_of(shape);
    row.unit = "msg/s";
    row.goal = 0.6;
    compare(report, row, all[0], all[1], &Measured::first, Better::higher);
#else
    (void)settings;
    std::printf("\n== java: built without Java\n");
    (void)report;
#endif
}

} // namespace halvo::bench
