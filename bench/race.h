// Interleaved rounds: every round runs every contender once, so that what the machine does
// meanwhile hits all alike. A round's ratio is of two runs that were neighbours in time, and the
// answer is the median of the rounds.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/processes.h"
#include "bench/report.h"

namespace halvo::bench {

struct Settings {
    int rounds = 5;
    double seconds = 0.2;       // length of one measurement
    uint32_t slots = 256;       // of a ring
    int64_t backlog = 10000000; // items of the long file queue
    std::string size;           // body/slot to run; empty: all
    std::string only;           // group to run; empty: all
    bool quick = false;
};

struct Contender {
    std::string name;
    std::function<Measured(uint32_t count)> run;
    uint32_t count = 2000; // how much to do in the first run, which only finds out the speed
    std::vector<Measured> rounds{};
};

// Runs the rounds. A contender that fails is reported, and its `rounds` are empty.
void race(std::vector<Contender> &contenders, const Settings &settings, Report &report,
          const std::string &what);

enum class Better { higher, lower };
using Value = double Measured::*;

// Adds the row that compares two contenders, unless one of them failed.
void compare(Report &report, const Row &names, const Contender &ours, const Contender &peer,
             Value value, Better better);

double median_of(const Contender &contender, Value value);

} // namespace halvo::bench
