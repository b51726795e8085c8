#include "bench/report.h"

#include <cmath>

namespace halvo::bench {

namespace {

// Three significant digits with a unit's prefix: 1.23M, 45.6k, 789, 0.012.
std::string number_of(double value) {
    const char *prefix = "";
    if (value >= 1e6) {
        value /= 1e6;
        prefix = "M";
    } else if (value >= 1e4) {
        value /= 1e3;
        prefix = "k";
    }
    char text[32];
    const int digits = value >= 100 ? 0 : value >= 10 ? 1 : value >= 1 ? 2 : 3;
    std::snprintf(text, sizeof text, "%.*f%s", digits, value, prefix);
    return text;
}

// A row whose rounds differ by more than what separates it from its goal says neither.
bool is_noisy(const Row &row) { return row.spread > std::abs(row.ratio - row.goal); }

const char *verdict(const Row &row) {
    if (row.goal <= 0) return "";
    if (is_noisy(row)) return "noisy";
    return row.ratio >= row.goal ? "reached" : "short";
}

} // namespace

Report::Report(const std::string &values) {
    if (values.empty()) return;
    values_ = std::fopen(values.c_str(), "we");
    if (!values_) throw Failure("cannot write " + values);
    std::fputs("group\tmeasure\tsize\tpeer\tunit\tours\ttheirs\tratio\tgoal\tverdict\tspread\n",
               values_);
}

Report::~Report() {
    if (values_) std::fclose(values_);
}

void Report::begin(const std::string &group, const std::string &explanation) {
    group_ = group;
    measure_.clear();
    std::printf("\n== %s: %s\n", group.c_str(), explanation.c_str());
    std::printf("%-27s %-14s %-26s %-6s %9s %9s %8s %7s %6s  %s\n", "measure", "size", "peer",
                "unit", "ours", "peer's", "ratio", "spread", "goal", "");
}

void Report::add(const Row &row) {
    char goal[16] = "";
    if (row.goal > 0) std::snprintf(goal, sizeof goal, "%.2f", row.goal);
    if (!measure_.empty() && measure_ != row.measure) std::printf("\n");
    measure_ = row.measure;
    std::printf("%-27s %-14s %-26s %-6s %9s %9s %8.2f %7.2f %6s  %s\n", row.measure.c_str(),
                row.size.c_str(), row.peer.c_str(), row.unit.c_str(), number_of(row.ours).c_str(),
                number_of(row.theirs).c_str(), row.ratio, row.spread, goal, verdict(row));
    std::fflush(stdout);
    if (values_) {
        std::fprintf(values_, "%s\t%s\t%s\t%s\t%s\t%.6g\t%.6g\t%.4g\t%.4g\t%s\t%.4g\n",
                     group_.c_str(), row.measure.c_str(), row.size.c_str(), row.peer.c_str(),
                     row.unit.c_str(), row.ours, row.theirs, row.ratio, row.goal, verdict(row),
                     row.spread);
        std::fflush(values_);
    }
    if (row.goal <= 0) return;
    if (row.ratio >= row.goal && !is_noisy(row)) {
        ++reached_;
        return;
    }
    char line[200];
    std::snprintf(line, sizeof line, "%s %s against %s: %.2f of %.2f, spread %.2f",
                  row.measure.c_str(), row.size.c_str(), row.peer.c_str(), row.ratio, row.goal,
                  row.spread);
    (is_noisy(row) ? noisy_ : short_).push_back(line);
}

void Report::fail(const std::string &what, const std::string &reason) {
    ++failures_;
    std::printf("FAILED %s: %s\n", what.c_str(), reason.c_str());
    std::fflush(stdout);
}

void Report::summarise() const {
    std::printf("\n%d goals reached, %zu short, %zu noisy, %d measurements failed\n", reached_,
                short_.size(), noisy_.size(), failures_);
    for (const std::string &line : short_) std::printf("  short: %s\n", line.c_str());
    for (const std::string &line : noisy_) std::printf("  noisy: %s\n", line.c_str());
}

} // namespace halvo::bench
