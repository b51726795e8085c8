// Status tables and documents of a whole segment.
#include <cstdlib>

#include "bench/groups/groups.h"
#include "bench/links/halvo.h"
#include "halvo/status.h"

namespace halvo::bench {

namespace {

constexpr int kMany = HALVO_CHANNELS_MAX;
constexpr int kFew = 67; // a quarter
constexpr double kTableLimit = 2e-3;

struct Printer {
    const char *name;
    void (*print)(char *document);
    double limit; // seconds; 0: none
};

constexpr Printer kPrinters[] = {
    {"q_statprint2 table", [](char *) { q_statprint2('s'); }, kTableLimit},
    {"q_statprint table", [](char *) { q_statprint('s'); }, kTableLimit},
    {"q_statprint_classic table", [](char *) { q_statprint_classic('s'); }, kTableLimit},
    {"xml document", [](char *document) { q_statprint_xml('a', document); }, 0},
    {"json document", [](char *document) { q_statprint_json('a', document); }, 0},
};

// A segment with a message in every channel, printed by a process as a monitoring program is.
Measured print_segment(const HalvoLink &segment, const Printer &printer, uint32_t count) {
    return run({[&](Shared &shared) {
        if (init_shm(segment.key_file().c_str()) != ESMS_OK) throw Failure("init_shm");
        q_settime();
        const auto channels = static_cast<int>(q_0()->nchnnl);
        std::vector<halvo_counter> rates(static_cast<size_t>(channels));
        lastcheck = rates.data();
        for (int i = 0; i < channels; ++i) {
            halvo_channel *q = q_open(i, 'w');
            const int result = q ? q_write(q, 1, "a message", 9) : ESMS_ACCESS;
            if (result != ESMS_OK && result != ESMS_FULL) throw Failure("q_write");
        }
        std::vector<char> document(static_cast<size_t>(128 + 1024 * channels));
        printer.print(document.data());
        const double start = seconds_now();
        for (uint32_t i = 0; i < count; ++i) printer.print(document.data());
        shared.result.seconds = seconds_now() - start;
        shared.result.first = shared.result.seconds / count * 1e6;
        shared.result.second = shared.result.first / channels;
    }});
}

} // namespace

void measure_print(const Settings &settings, Report &report) {
    report.begin("print", "microseconds for all channels to /dev/null, and for each channel");
    const Shape shape{100, 128, 8};
    const HalvoLink many(shape, kMany), few(shape, kFew);
    for (const Printer &printer : kPrinters) {
        std::vector<Contender> all;
        for (const HalvoLink *segment : {&many, &few})
            all.push_back(
                {segment == &few ? "each of 67 channels" : "269 channels",
                 [&, segment](uint32_t count) { return print_segment(*segment, printer, count); },
                 20});
        race(all, settings, report, printer.name);
        Row row{};
        row.measure = printer.name;
        row.size = "269";
        row.unit = "us";
        if (printer.limit > 0 && !all[0].rounds.empty()) {
            Contender limit{"limit", nullptr};
            limit.rounds.resize(all[0].rounds.size(), {0, printer.limit * 1e6, 0});
            row.goal = 1;
            compare(report, row, all[0], limit, &Measured::first, Better::lower);
        }
        row.goal = 0;
        compare(report, row, all[0], all[1], &Measured::second, Better::lower);
    }
}

} // namespace halvo::bench
