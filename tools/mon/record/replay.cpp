// halvo-mon replay: a record as text: what wanted a look, the channels at a time, one channel over time.
#include "tools/mon/record/replay.h"

#include <ctime>
#include <map>

#include "tools/frame/charset.h"
#include "tools/frame/output.h"
#include "tools/frame/text.h"
#include "tools/mon/screen/top_rows.h"

namespace halvo::mon {

using tools::text;

namespace {

constexpr int kWidth = 132; // columns of the table of a time

std::string date_text(int64_t time) { return tools::local_time(time, "%Y-%m-%d %H:%M:%S"); }

// In columns, of which a Korean syllable takes two, as it takes bytes in EUC-KR.
std::string padded(const std::string &utf8, int width, bool right = false) {
    const auto size = static_cast<int>(tools::to_euc_kr(utf8).value_or(utf8).size());
    const std::string blanks(static_cast<size_t>(std::max(width - size, 0)), ' ');
    return right ? blanks + utf8 : utf8 + blanks;
}

std::string trimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

struct Spell {
    Trouble trouble = Trouble::none;
    int64_t from = 0, to = 0, most = 0;
};

// Gathers how long each channel was in which trouble.
class Story {
public:
    void tell(const Sample &sample) {
        if (!sample.up && fault_.empty()) gone_ = sample.time;
        if (sample.up && !fault_.empty()) tell_gone(sample.time);
        fault_ = sample.fault;
        for (const ChannelSample &channel : sample.channels) {
            Spell &spell = spells_[channel.name];
            if (spell.trouble != channel.trouble) {
                tell_spell(channel.name, spell);
                spell = {channel.trouble, sample.time, sample.time, 0};
            }
            spell.to = sample.time;
            spell.most = std::max(spell.most, channel.depth());
        }
        last_ = sample.time;
    }
    std::string end() {
        for (const auto &[name, spell] : spells_) tell_spell(name, spell);
        if (!fault_.empty()) tell_gone(last_);
        std::string out;
        for (const auto &[from, line] : lines_) out += line;
        return out;
    }

private:
    void tell_spell(const std::string &name, const Spell &spell) {
        if (spell.trouble == Trouble::none) return;
        lines_.emplace(spell.from,
                       trimmed(date_text(spell.from) + "  " + date_text(spell.to) + "  " +
                               padded(name, 23) + "  " + padded(word_of(spell.trouble), 9) +
                               text("  %lld", static_cast<long long>(spell.most))));
    }
    void tell_gone(int64_t until) {
        lines_.emplace(gone_, date_text(gone_) + "  " + date_text(until) + "  " + fault_ + "\n");
    }

    std::multimap<int64_t, std::string> lines_; // by begin
    std::map<std::string, Spell> spells_;
    std::string fault_;
    int64_t gone_ = 0, last_ = 0;
};

} // namespace

std::string story_of(RecordSource &record) {
    std::string out = text("%s: %d looks from %s to %s\n", record.title().c_str(), record.size(),
                           date_text(record.time_of(0)).c_str(),
                           date_text(record.time_of(record.size() - 1)).c_str());
    Story story;
    for (int i = 0; i < record.size(); ++i) {
        record.go_to(i);
        story.tell(record.take());
    }
    const std::string lines = story.end();
    if (lines.empty()) return out + "Nothing wanted a look.\n";
    return out +
           trimmed(padded("FROM", 21) + padded("TO", 21) + padded("CHANNEL", 25) +
                   padded("STATE", 11) + "MOST") +
           lines;
}

std::string table_of(const Sample &sample) {
    std::string out = date_text(sample.time) + (sample.up ? "" : "  " + sample.fault) + "\n";
    const auto places = placed(kWidth, kStateColumn);
    const auto add = [&](auto cell) {
        std::string line;
        for (const Placed &place : places) {
            const Column &column = columns()[static_cast<size_t>(place.column)];
            line += padded(cell(column), place.width, column.right) + " ";
        }
        out += trimmed(line);
    };
    add([](const Column &column) { return std::string(column.title); });
    for (const size_t row : rows_of(sample, {}))
        add([&](const Column &column) { return column.text(sample.channels[row], sample.time); });
    return out;
}

std::string course_of(RecordSource &record, const std::string &channel) {
    std::string out = trimmed(padded("TIME", 21) + padded("STATE", 11) +
                              "  DEPTH    IN/s   OUT/s  OLDEST    WRITER    READER");
    bool found = false;
    for (int i = 0; i < record.size(); ++i) {
        record.go_to(i);
        const Sample sample = record.take();
        for (const ChannelSample &c : sample.channels) {
            if (c.name != channel) continue;
            found = true;
            out += trimmed(date_text(sample.time) + "  " + padded(word_of(c.trouble), 9) + "  " +
                           text("%7lld %7.1f %7.1f %7s %9s %9s", static_cast<long long>(c.depth()),
                                c.in_rate, c.out_rate,
                                c.depth() > 0 ? short_age(c.oldest).c_str() : "-",
                                holder_text(c.writer).c_str(), holder_text(c.reader).c_str()));
        }
    }
    if (!found)
        throw tools::ToolError(tools::kUsage,
                               channel + ": no channel of that name in " + record.title());
    return out;
}

int64_t time_of_words(const std::string &words, int64_t latest) {
    const auto end = static_cast<time_t>(latest);
    for (const char *format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%H:%M:%S", "%H:%M"}) {
        tm local{};
        localtime_r(&end, &local);
        local.tm_sec = 0;
        const char *rest = strptime(words.c_str(), format, &local);
        if (!rest || *rest) continue;
        local.tm_isdst = -1;
        int64_t time = std::mktime(&local);
        if (format[1] == 'H' && time > latest) { // of the day before
            --local.tm_mday;
            local.tm_isdst = -1;
            time = std::mktime(&local);
        }
        return time;
    }
    throw tools::ToolError(tools::kUsage,
                           "\"" + words + "\" is no time such as 02:30 or \"2026-01-31 02:30:00\"");
}

} // namespace halvo::mon
