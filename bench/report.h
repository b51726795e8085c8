// What was measured, as a table a group and as one file of tab-separated values.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "bench/common.h"

namespace halvo::bench {

// One comparison. `ratio` is above 1 when ours is better, whatever the unit.
struct Row {
    std::string measure; // "q_ throughput"
    std::string size;    // "100/128"
    std::string peer;
    std::string unit; // "msg/s", "ns"
    double ours;
    double theirs;
    double ratio;
    double goal;   // the least ratio that is asked for; 0: none
    double spread; // of the ratio: between the rounds' quartiles
};

class Report {
public:
    // values: name of the file of values, or empty for none.
    explicit Report(const std::string &values);
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;
    ~Report();

    void begin(const std::string &group, const std::string &explanation);
    void add(const Row &row);
    void fail(const std::string &what, const std::string &reason);
    int failures() const { return failures_; }
    void summarise() const;

private:
    std::string group_;
    std::FILE *values_ = nullptr;
    std::string measure_; // of the row before
    int failures_ = 0, reached_ = 0;
    std::vector<std::string> short_, noisy_;
};

} // namespace halvo::bench
