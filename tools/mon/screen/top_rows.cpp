#include "tools/mon/screen/top_rows.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "tools/frame/text.h"

namespace halvo::mon {

using tools::text;

namespace {

using Channel = ChannelSample;

// The ends that a channel's messages pass through.
const EndSample &writer_of(const Channel &c) {
    return c.type == 'M' || c.writer.pid ? c.writer : c.file_writer;
}
const EndSample &reader_of(const Channel &c) {
    return c.type == 'M' || c.reader.pid ? c.reader : c.file_reader;
}

std::string count(uint64_t value, int width) {
    return short_number(static_cast<double>(value), width);
}

std::string waiters(const Channel &c) {
    std::string out;
    if (c.waiting_writers > 0) out += "W" + std::to_string(c.waiting_writers);
    if (c.waiting_readers > 0) out += "R" + std::to_string(c.waiting_readers);
    return out;
}

int64_t since(int32_t stamp, int64_t now) { return stamp == 0 ? INT64_MAX : now - stamp; }

std::vector<Column> all_columns() {
    return {
        {"STATE", 9, 0, false,
         [](const Channel &c, int64_t) {
             return std::string(c.trouble == Trouble::none ? "" : word_of(c.trouble));
         },
         [](const Channel &c, int64_t) {
             return static_cast<double>(c.trouble) * 1e15 + static_cast<double>(c.depth());
         }},
        {"CHANNEL", 11, 0, false, [](const Channel &c, int64_t) { return c.name; }, nullptr},
        {"NO", 3, 5, true, [](const Channel &c, int64_t) { return std::to_string(c.number); },
         [](const Channel &c, int64_t) { return -static_cast<double>(c.number); }},
        {"T", 1, 4, false, [](const Channel &c, int64_t) { return std::string(1, c.type); },
         nullptr},
        {"DEPTH", 7, 0, true,
         [](const Channel &c, int64_t) { return short_number(static_cast<double>(c.depth()), 7); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.depth()); }},
        {"FILL", 4, 1, true,
         [](const Channel &c, int64_t) {
             return text("%d%%", static_cast<int>(std::lround(c.fill() * 100)));
         },
         [](const Channel &c, int64_t) { return c.fill(); }},
        {"SLOTS", 6, 9, true, [](const Channel &c, int64_t) { return count(c.slots, 6); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.slots); }},
        {"IN/s", 7, 0, true, [](const Channel &c, int64_t) { return short_number(c.in_rate, 7); },
         [](const Channel &c, int64_t) { return c.in_rate; }},
        {"OUT/s", 7, 0, true, [](const Channel &c, int64_t) { return short_number(c.out_rate, 7); },
         [](const Channel &c, int64_t) { return c.out_rate; }},
        {"LIMIT", 6, 8, true,
         [](const Channel &c, int64_t) {
             return c.rate_limit > 0
                        ? count(static_cast<uint64_t>(c.rate_limit), 5) + (c.throttled ? "!" : "")
                        : "";
         },
         [](const Channel &c, int64_t) { return static_cast<double>(std::max(c.rate_limit, 0)); }},
        {"OLDEST", 6, 2, true,
         [](const Channel &c, int64_t) { return c.depth() > 0 ? short_age(c.oldest) : ""; },
         [](const Channel &c, int64_t) { return static_cast<double>(c.oldest); }},
        {"WAIT", 5, 6, true, [](const Channel &c, int64_t) { return waiters(c); },
         [](const Channel &c, int64_t) {
             return static_cast<double>(c.waiting_writers + c.waiting_readers);
         }},
        {"WRITER", 8, 2, true, [](const Channel &c, int64_t) { return holder_text(writer_of(c)); },
         [](const Channel &c, int64_t) { return static_cast<double>(writer_of(c).pid); }},
        {"W-NAME", 12, 7, false, [](const Channel &c, int64_t) { return writer_of(c).name; },
         nullptr},
        {"READER", 8, 2, true, [](const Channel &c, int64_t) { return holder_text(reader_of(c)); },
         [](const Channel &c, int64_t) { return static_cast<double>(reader_of(c).pid); }},
        {"R-NAME", 12, 7, false, [](const Channel &c, int64_t) { return reader_of(c).name; },
         nullptr},
        {"PUT", 5, 3, true,
         [](const Channel &c, int64_t now) { return age_of_stamp(c.last_in, now); },
         [](const Channel &c, int64_t now) { return -static_cast<double>(since(c.last_in, now)); }},
        {"GOT", 5, 3, true,
         [](const Channel &c, int64_t now) { return age_of_stamp(c.last_out, now); },
         [](const Channel &c, int64_t now) {
             return -static_cast<double>(since(c.last_out, now));
         }},
        {"PUTS", 10, 11, true, [](const Channel &c, int64_t) { return count(c.put, 10); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.put); }},
        {"GETS", 10, 11, true, [](const Channel &c, int64_t) { return count(c.got, 10); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.got); }},
        {"ERRORS", 7, 10, true, [](const Channel &c, int64_t) { return count(c.errors, 7); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.errors); }},
        {"FILE", 7, 12, true,
         [](const Channel &c, int64_t) {
             return short_number(static_cast<double>(c.file_depth()), 7);
         },
         [](const Channel &c, int64_t) { return static_cast<double>(c.file_depth()); }},
        {"PARKED", 6, 13, true, [](const Channel &c, int64_t) { return std::to_string(c.parked); },
         [](const Channel &c, int64_t) { return static_cast<double>(c.parked); }},
    };
}

std::string lower(std::string text) {
    for (char &c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

bool matches(const Channel &channel, const Choice &choice) {
    if (choice.type && channel.type != choice.type) return false;
    if (choice.trouble_only && channel.trouble == Trouble::none) return false;
    const std::string wanted = lower(choice.filter);
    for (const std::string *name : {&channel.name, &channel.writer.name, &channel.reader.name})
        if (lower(*name).find(wanted) != std::string::npos) return true;
    return false;
}

} // namespace

const std::vector<Column> &columns() {
    static const std::vector<Column> all = all_columns();
    return all;
}

std::vector<Placed> placed(int width, int sorted_by) {
    const auto &all = columns();
    std::vector<int> by_rank(all.size());
    for (size_t i = 0; i < all.size(); ++i) by_rank[i] = static_cast<int>(i);
    std::stable_sort(by_rank.begin(), by_rank.end(), [&](int one, int other) {
        const auto rank = [&](int i) {
            return i == sorted_by ? -1 : all[static_cast<size_t>(i)].rank;
        };
        return rank(one) < rank(other);
    });
    std::vector<Placed> chosen;
    int used = 0;
    for (const int i : by_rank) {
        const int needed = all[static_cast<size_t>(i)].width + 1; // and a blank behind it
        if (used + needed > width + 1) break;
        used += needed;
        chosen.push_back({i, needed - 1});
    }
    std::sort(chosen.begin(), chosen.end(),
              [](const Placed &one, const Placed &other) { return one.column < other.column; });
    constexpr int kLongestName = 23;
    for (Placed &place : chosen)
        if (place.column == kNameColumn)
            place.width += std::clamp(width + 1 - used, 0, kLongestName - place.width);
    return chosen;
}

std::string short_number(double value, int width) {
    std::string whole = text("%.0f", value);
    if (static_cast<int>(whole.size()) <= width) return whole;
    for (const char unit : {'k', 'M', 'G', 'T', 'P', 'E'}) {
        value /= 1000;
        for (const int digits : {2, 1, 0}) {
            whole = text("%.*f%c", digits, value, unit);
            if (static_cast<int>(whole.size()) <= width) return whole;
        }
    }
    return whole;
}

std::string short_age(int64_t seconds) {
    const auto number = [](int64_t value) { return static_cast<long long>(value); };
    if (seconds < 0) seconds = 0;
    if (seconds < 120) return text("%llds", number(seconds));
    if (seconds < 7200) return text("%lldm", number(seconds / 60));
    if (seconds < 172800) return text("%lldh", number(seconds / 3600));
    return text("%lldd", number(seconds / 86400));
}

std::string age_of_stamp(int32_t stamp, int64_t now) {
    return stamp == 0 ? "-" : short_age(now - stamp);
}

std::string holder_text(const EndSample &end) {
    if (end.pid == 0) return "-";
    const char *mark = "";
    if (end.held == Held::yes) mark = end.alive ? "*" : "!";
    if (end.held == Held::unknown && end.alive) mark = "?";
    return std::to_string(end.pid) + mark;
}

std::vector<size_t> rows_of(const Sample &sample, const Choice &choice) {
    std::vector<size_t> rows;
    for (size_t i = 0; i < sample.channels.size(); ++i)
        if (matches(sample.channels[i], choice)) rows.push_back(i);
    const Column &column = columns()[static_cast<size_t>(choice.sorted_by)];
    const auto before = [&](size_t one, size_t other) {
        const Channel &a = sample.channels[one], &b = sample.channels[other];
        return column.value ? column.value(a, sample.time) > column.value(b, sample.time)
                            : column.text(a, sample.time) < column.text(b, sample.time);
    };
    std::stable_sort(rows.begin(), rows.end(), [&](size_t one, size_t other) {
        return choice.reversed ? before(other, one) : before(one, other);
    });
    return rows;
}

char next_type(const Sample &sample, char type) {
    std::set<char> types;
    for (const Channel &channel : sample.channels) types.insert(channel.type);
    const auto next = type ? types.upper_bound(type) : types.begin();
    return next == types.end() ? '\0' : *next;
}

} // namespace halvo::mon
