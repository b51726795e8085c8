// halvo-bench: ours and its peers in one run, as ratios.
#include <getopt.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/disturbance.h"
#include "bench/groups/groups.h"

using namespace halvo::bench;

namespace {

struct Group {
    const char *name;
    void (*measure)(const Settings &, Report &);
};

constexpr Group kGroups[] = {
    {"ring", measure_ring},   {"place", measure_in_place}, {"trip", measure_round_trip},
    {"wake", measure_wake},   {"java", measure_java},      {"file", measure_file_queue},
    {"flat", measure_flat},   {"print", measure_print},
#ifdef HALVO_BENCH_RELAY
    {"relay", measure_relay},
#endif
};

constexpr char kHelp[] =
    R"(usage: halvo-bench [--quick] [--rounds N] [--only GROUP[,GROUP]] [--size BODY/SLOT]
                   [--seconds S] [--slots N] [--backlog N] [--dir PATH] [--tsv FILE]

Measures the library beside its peers, two processes on two processors, and prints ratios.
Exit status 0 when every measurement worked, also when goals are short; 1 when one failed.

  --quick       shorter measurements, fewer rounds and a shorter backlog
  --rounds N    rounds of each comparison (5, quick 3); the median counts
  --only ...    some of: ring place trip wake java file flat print relay
  --size B/S    ring, place and trip at one size only, such as 1000/1024
  --seconds S   length of one measurement (0.2, quick 0.04)
  --slots N     slots of a ring (256; the spsc_queue always has 256)
  --backlog N   items of the long file queue (10000000, quick 100000)
  --dir PATH    where files are written (default $TMPDIR or /tmp)
  --tsv FILE    also writes the rows as tab-separated values
)";

enum { kQuick = 1, kRounds, kOnly, kSeconds, kSlots, kBacklog, kDir, kTsv, kSize, kHelpAsked };

constexpr option kOptions[] = {{"quick", no_argument, nullptr, kQuick},
                               {"rounds", required_argument, nullptr, kRounds},
                               {"only", required_argument, nullptr, kOnly},
                               {"seconds", required_argument, nullptr, kSeconds},
                               {"slots", required_argument, nullptr, kSlots},
                               {"backlog", required_argument, nullptr, kBacklog},
                               {"dir", required_argument, nullptr, kDir},
                               {"tsv", required_argument, nullptr, kTsv},
                               {"size", required_argument, nullptr, kSize},
                               {"help", no_argument, nullptr, kHelpAsked},
                               {}};

bool chosen(const Settings &settings, const std::string &group) {
    return settings.only.empty() ||
           ("," + settings.only + ",").find("," + group + ",") != std::string::npos;
}

// Where and how it was measured. A load well above 0 means that others use the processors.
void print_machine(const Settings &settings) {
    std::string model = "unknown processor", line;
    for (std::ifstream file("/proc/cpuinfo"); std::getline(file, line);)
        if (line.rfind("model name", 0) == 0) model = line.substr(line.find(": ") + 2);
    utsname system{};
    uname(&system);
    double load = 0;
    getloadavg(&load, 1);
    std::printf("%s, %d processors, Linux %s, load %.2f\n", model.c_str(), processors(),
                system.release, load);
    std::printf(
        "%d-bit, %d rounds of %.2f s, rings of %u slots; ratio: median of the rounds' "
        "ratios, above 1 is ours ahead;\n"
        "spread: between the quartiles of the rounds' ratios; noisy: more than to the goal\n",
        static_cast<int>(8 * sizeof(void *)), settings.rounds, settings.seconds, settings.slots);
}

int measure(const Settings &settings, const std::string &values) {
    Report report(values);
    const Disturbance disturbance;
    print_machine(settings);
    if (processors() < 2)
        std::puts("halvo-bench: one processor only; the ratios between processes mean nothing");
    for (const Group &group : kGroups)
        if (chosen(settings, group.name)) group.measure(settings, report);
    report.summarise();
    disturbance.print();
    return report.failures() ? EXIT_FAILURE : EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    Settings settings;
    std::string values;
    const char *rounds = nullptr;
    double seconds = 0;
    int64_t backlog = 0;
    for (int found; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (found) {
        case kQuick:
            settings.quick = true;
            break;
        case kRounds:
            rounds = optarg;
            break;
        case kOnly:
            settings.only = optarg;
            break;
        case kSeconds:
            seconds = std::atof(optarg);
            break;
        case kSize:
            settings.size = optarg;
            break;
        case kSlots:
            settings.slots = static_cast<uint32_t>(std::atoi(optarg));
            break;
        case kBacklog:
            backlog = std::atoll(optarg);
            break;
        case kDir:
            setenv("TMPDIR", optarg, 1);
            break;
        case kTsv:
            values = optarg;
            break;
        case kHelpAsked:
            std::fputs(kHelp, stdout);
            return EXIT_SUCCESS;
        default:
            std::fputs(kHelp, stderr);
            return 2;
        }
    }
    settings.rounds = rounds ? std::atoi(rounds) : settings.quick ? 3 : 5;
    settings.seconds = seconds > 0 ? seconds : settings.quick ? 0.04 : 0.2;
    settings.backlog = backlog > 0 ? backlog : settings.quick ? 100000 : 10000000;
    if (settings.rounds < 1 || settings.slots < 2 || optind != argc) {
        std::fputs(kHelp, stderr);
        return 2;
    }
    hold_signals();
    try {
        return measure(settings, values);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "halvo-bench: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
