// halvo-bench: ours and its peers in one run, as ratios.
#include <getopt.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

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

// What the command line says.
struct Given {
    Settings settings;
    std::string values;        // the file of --tsv
    std::optional<int> rounds; // what is not given depends on --quick
    double seconds = 0;
    int64_t backlog = 0;
    bool help = false;
};

struct Word {
    const char *name;
    int has_argument;
    void (*take)(Given &, const char *);
};
constexpr Word kWords[] = {
    {"quick", no_argument, [](Given &to, const char *) { to.settings.quick = true; }},
    {"rounds", required_argument, [](Given &to, const char *n) { to.rounds = std::atoi(n); }},
    {"only", required_argument, [](Given &to, const char *groups) { to.settings.only = groups; }},
    {"size", required_argument, [](Given &to, const char *size) { to.settings.size = size; }},
    {"seconds", required_argument, [](Given &to, const char *s) { to.seconds = std::atof(s); }},
    {"slots", required_argument,
     [](Given &to, const char *n) { to.settings.slots = static_cast<uint32_t>(std::atoi(n)); }},
    {"backlog", required_argument, [](Given &to, const char *n) { to.backlog = std::atoll(n); }},
    {"dir", required_argument, [](Given &, const char *path) { setenv("TMPDIR", path, 1); }},
    {"tsv", required_argument, [](Given &to, const char *file) { to.values = file; }},
    {"help", no_argument, [](Given &to, const char *) { to.help = true; }},
};

// False for words that mean nothing.
bool parse(int argc, char **argv, Given &given) {
    std::vector<option> options;
    for (const Word &word : kWords)
        options.push_back(
            {word.name, word.has_argument, nullptr, static_cast<int>(options.size()) + 1});
    options.push_back({});
    for (int found; (found = getopt_long(argc, argv, "", options.data(), nullptr)) != -1;) {
        if (found == '?') return false;
        kWords[found - 1].take(given, optarg);
    }
    Settings &settings = given.settings;
    settings.rounds = given.rounds.value_or(settings.quick ? 3 : 5);
    settings.seconds = given.seconds > 0 ? given.seconds : settings.quick ? 0.04 : 0.2;
    settings.backlog = given.backlog > 0 ? given.backlog : settings.quick ? 100000 : 10000000;
    return settings.rounds >= 1 && settings.slots >= 2 && optind == argc;
}

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
    Given given;
    const bool good = parse(argc, argv, given);
    if (given.help || !good) {
        std::fputs(kHelp, given.help ? stdout : stderr);
        return given.help ? EXIT_SUCCESS : 2;
    }
    hold_signals();
    try {
        return measure(given.settings, given.values);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "halvo-bench: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
