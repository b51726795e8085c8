#include "tools/mon/check.h"

#include <algorithm>
#include <cstring>

#include "print/figures.h"
#include "tools/mon/text.h"

namespace halvo::mon {

namespace {

constexpr size_t kMostProblems = 5; // told one by one

// Fit for one line of a plugin's answer: the bar and the quote have a meaning there.
std::string plain(const std::string &euc_kr) {
    std::string text = for_terminal(euc_kr, false);
    for (char &c : text)
        if (std::strchr("|'=\n\t", c)) c = '_';
    return to_utf8(text);
}

Health judged(int64_t value, const Limits &limits) {
    if (limits.critical >= 0 && value > limits.critical) return Health::critical;
    if (limits.warning >= 0 && value > limits.warning) return Health::warning;
    return Health::ok;
}

bool any(const Limits &limits) { return limits.warning >= 0 || limits.critical >= 0; }

std::string limits_text(const Limits &limits) {
    const auto one = [](int64_t limit) { return limit < 0 ? "" : std::to_string(limit); };
    return ";" + one(limits.warning) + ";" + one(limits.critical) + ";0";
}

class Report {
public:
    explicit Report(const CheckOptions &options) : options_(options) {}

    void look_at(const Image &image, int number, int32_t now) {
        const halvo_channel &q = image.channel(number);
        ++channels_;
        if (!image.usable(number)) {
            problem(Health::critical, "channel " + std::to_string(number) + " is damaged");
            return;
        }
        const std::string name = plain(std::string(q.qname, strnlen(q.qname, sizeof q.qname)));
        look_at_backlog(q, name);
        if (!any(options_.age)) return;
        const size_t ring_or_file = shows_ring(q) ? 0 : 2;
        if (options_.writers) look_at_end(q, kEnds[ring_or_file], name + " writer", now);
        if (options_.readers) look_at_end(q, kEnds[ring_or_file + 1], name + " reader", now);
    }

    Answer answer() const {
        static constexpr const char *kWords[] = {"OK", "WARNING", "CRITICAL"};
        std::string text = std::string("HALVO ") + kWords[static_cast<int>(health_)] + " - ";
        if (problems_.empty())
            text += std::to_string(channels_) + " channels, backlog " + std::to_string(backlog_);
        size_t told = 0;
        for (const Health health : {Health::critical, Health::warning})
            for (const Problem &problem : problems_)
                if (problem.health == health && told < kMostProblems)
                    text += (told++ > 0 ? "; " : "") + problem.text;
        if (problems_.size() > told)
            text += " and " + std::to_string(problems_.size() - told) + " more";
        return {health_, text + " |" + figures_};
    }

private:
    void look_at_backlog(const halvo_channel &q, const std::string &name) {
        const int64_t backlog = ring_backlog(q) + file_backlog(q);
        backlog_ += backlog;
        figures_ +=
            " '" + name + " backlog'=" + std::to_string(backlog) + limits_text(options_.backlog);
        const Health health = judged(backlog, options_.backlog);
        if (health != Health::ok) problem(health, name + " backlog " + std::to_string(backlog));
    }

    void look_at_end(const halvo_channel &q, const End &end, const std::string &name, int32_t now) {
        const int32_t stamp = q.*end.stamp;
        const int64_t seconds = stamp == 0 ? INT32_MAX : std::max(age(now, stamp), 0);
        const Health health = judged(seconds, options_.age);
        figures_ += " '" + name + "'=" + (stamp == 0 ? "U" : std::to_string(seconds) + "s") +
                    limits_text(options_.age);
        if (health == Health::ok) return;
        problem(health, stamp == 0 ? name + " never seen"
                                   : name + " silent for " + std::to_string(seconds) + "s");
    }

    struct Problem {
        Health health;
        std::string text;
    };
    void problem(Health health, const std::string &text) {
        problems_.push_back({health, text});
        health_ = std::max(health_, health);
    }

    const CheckOptions &options_;
    Health health_ = Health::ok;
    int channels_ = 0;
    int64_t backlog_ = 0;
    std::vector<Problem> problems_;
    std::string figures_;
};

int number_of(const Image &image, const std::string &name) {
    for (int i = 0; i < image.channels(); ++i) {
        const char *field = image.channel(i).qname;
        const std::string found(field, strnlen(field, HALVO_NAME_SIZE));
        if (found == name || to_utf8(found) == name) return i;
    }
    return -1;
}

} // namespace

Answer unknown(const std::string &why) { return {Health::unknown, "HALVO UNKNOWN - " + why}; }

Answer check(const Image &image, const CheckOptions &options, int32_t now) {
    Report report(options);
    for (const std::string &name : options.channels) {
        const int number = number_of(image, name);
        if (number < 0) return unknown("no channel named " + name);
        report.look_at(image, number, now);
    }
    for (int i = 0; options.channels.empty() && i < image.channels(); ++i)
        report.look_at(image, i, now);
    return report.answer();
}

} // namespace halvo::mon
