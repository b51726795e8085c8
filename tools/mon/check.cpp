#include "tools/mon/check.h"

#include <algorithm>
#include <cstring>

#include "print/figures.h"

namespace halvo::mon {

namespace {

constexpr size_t kMostProblems = 5; // told one by one

constexpr size_t kMostFigures = 3000; // bytes
constexpr size_t kMostText = 1000;

// What is not known is worse than a warning and no reason to hide what is critical.
constexpr Health kWorstFirst[] = {Health::critical, Health::unknown, Health::warning};

// Fit for one line of a plugin's answer: the bar and the quote have a meaning there.
std::string plain(std::string name) {
    for (char &c : name)
        if (std::strchr("|'=\n\t?", c)) c = '_';
    return name;
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

// Of an end: how long ago it was used, and whether somebody has it.
struct Sign {
    const char *name;
    const EndSample &end;
    bool age_counts, must_be_held;
};

class Report {
public:
    Report(const CheckOptions &options, const Sample &sample)
        : options_(options), sample_(sample) {}

    void look_at(const ChannelSample &channel) {
        const auto own = options_.own.find(channel.name);
        const Demands &demands = own == options_.own.end() ? options_.demands : own->second;
        if (demands.ignored) return;
        ++channels_;
        if (!channel.damage.empty())
            return problem(Health::critical,
                           "channel " + std::to_string(channel.number) + " is damaged");
        const std::string name = plain(channel.name);
        look_at_backlog(channel, name, demands);
        const bool ring = shows_ring(channel.type);
        look_at_end({"writer", ring ? channel.writer : channel.file_writer, options_.writers,
                     demands.writer_held},
                    name, demands, ring);
        look_at_end({"reader", ring ? channel.reader : channel.file_reader, options_.readers,
                     demands.reader_held},
                    name, demands, ring);
    }

    Answer answer() const {
        static constexpr const char *kWords[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
        const Health health = worst();
        std::string text = std::string("HALVO ") + kWords[static_cast<int>(health)] + " - ";
        if (problems_.empty())
            text += std::to_string(channels_) + " channels, backlog " + std::to_string(backlog_);
        size_t told = 0;
        for (const Health wanted : kWorstFirst)
            for (const Problem &problem : problems_)
                if (problem.health == wanted && told < kMostProblems)
                    text += (told++ > 0 ? "; " : "") + problem.text;
        if (problems_.size() > told)
            text += " and " + std::to_string(problems_.size() - told) + " more";
        return {health, text + " |" + (room_ <= kMostFigures ? figures_ : figures_of_all())};
    }

private:
    void look_at_backlog(const ChannelSample &channel, const std::string &name,
                         const Demands &demands) {
        const int64_t backlog = channel.depth();
        backlog_ += backlog;
        most_ = std::max(most_, backlog);
        figure(name + " backlog", std::to_string(backlog), demands.backlog);
        const Health health = judged(backlog, demands.backlog);
        if (health != Health::ok) problem(health, name + " backlog " + std::to_string(backlog));
    }

    void look_at_end(const Sign &sign, const std::string &channel, const Demands &demands,
                     bool ring) {
        const std::string name = channel + " " + sign.name;
        if (sign.must_be_held) look_at_holder(sign.end, name, ring);
        if (!sign.age_counts || !any(demands.age)) return;
        const int32_t stamp = sign.end.stamp;
        const int64_t seconds =
            stamp == 0 ? INT32_MAX : std::max(age(static_cast<int32_t>(sample_.time), stamp), 0);
        if (stamp != 0) oldest_ = std::max(oldest_, seconds);
        figure(name, stamp == 0 ? "U" : std::to_string(seconds) + "s", demands.age);
        const Health health = judged(seconds, demands.age);
        if (health == Health::ok) return;
        problem(health, stamp == 0 ? name + " never seen"
                                   : name + " silent for " + std::to_string(seconds) + "s");
    }

    void look_at_holder(const EndSample &end, const std::string &name, bool ring) {
        if (ring && end.held == Held::unknown)
            return problem(Health::unknown, name + " may not be looked at by this user");
        if (end.alive && (!ring || end.held == Held::yes)) return;
        const bool dead = ring ? end.held == Held::yes : end.pid != 0;
        problem(Health::critical, name + (dead ? " is held by a dead process" : " is not there"));
    }

    // Whether figures of each channel fit must not change with their digits, or a graph would have
    // gaps: each counts with the most that it can take.
    void figure(const std::string &label, const std::string &value, const Limits &limits) {
        figures_ += " '" + label + "'=" + value + limits_text(limits);
        room_ += label.size() + limits_text(limits).size() + 24;
    }

    std::string figures_of_all() const {
        const auto one = [](const char *label, int64_t value, const char *unit) {
            return std::string(" '") + label + "'=" + std::to_string(value) + unit + ";;;0";
        };
        return one("channels", channels_, "") + one("backlog", backlog_, "") +
               one("most backlog", most_, "") + one("oldest", oldest_, "s") +
               one("problems", static_cast<int64_t>(problems_.size()), "");
    }

    Health worst() const {
        for (const Health health : kWorstFirst)
            for (const Problem &problem : problems_)
                if (problem.health == health) return health;
        return Health::ok;
    }

    struct Problem {
        Health health;
        std::string text;
    };
    void problem(Health health, const std::string &text) { problems_.push_back({health, text}); }

    const CheckOptions &options_;
    const Sample &sample_;
    int channels_ = 0;
    int64_t backlog_ = 0, most_ = 0, oldest_ = 0;
    std::vector<Problem> problems_;
    std::string figures_;
    size_t room_ = 0;
};

const ChannelSample *channel_of(const Sample &sample, const std::string &name) {
    for (const ChannelSample &channel : sample.channels)
        if (channel.raw_name == name || channel.name == name) return &channel;
    return nullptr;
}

} // namespace

Answer unknown(const std::string &why) {
    std::string line = "HALVO UNKNOWN - " + why;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return {Health::unknown, line.substr(0, kMostText)};
}

Answer check(const Sample &sample, const CheckOptions &options) {
    if (!sample.up) return unknown(sample.fault);
    for (const auto &[name, demands] : options.own)
        if (!channel_of(sample, name)) return unknown("no channel named " + name);
    Report report(options, sample);
    for (const std::string &name : options.channels) {
        const ChannelSample *channel = channel_of(sample, name);
        if (!channel) return unknown("no channel named " + name);
        report.look_at(*channel);
    }
    if (options.channels.empty())
        for (const ChannelSample &channel : sample.channels) report.look_at(channel);
    return report.answer();
}

} // namespace halvo::mon
