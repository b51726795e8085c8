#include "tools/mon/screen/top.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "tools/frame/output.h"
#include "tools/frame/text.h"
#include "tools/mon/screen/details.h"

namespace halvo::mon {

using tools::text;

namespace {

constexpr int kHeadRows = 4, kFootRows = 1; // title, totals, choices, titles of columns; keys
constexpr double kMegabyte = 1 << 20;

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string time_text(int64_t time, const char *format) {
    const auto seconds = static_cast<time_t>(time);
    tm local{};
    localtime_r(&seconds, &local);
    char out[64];
    std::strftime(out, sizeof out, format, &local);
    return out;
}

Look look_of(Trouble trouble) {
    switch (trouble) {
    case Trouble::none:
        return Look::plain;
    case Trouble::throttled:
        return Look::notice;
    case Trouble::growing:
    case Trouble::old:
        return Look::warning;
    default:
        return Look::alarm;
    }
}

// "2 no reader, 1 full": the worst first.
std::string troubles_of(const Sample &sample) {
    std::string out;
    for (int i = kTroubles - 1; i > 0; --i) {
        const auto trouble = static_cast<Trouble>(i);
        const auto count = std::count_if(sample.channels.begin(), sample.channels.end(),
                                         [&](const auto &c) { return c.trouble == trouble; });
        if (count > 0)
            out += (out.empty() ? "" : ", ") + std::to_string(count) + " " + word_of(trouble);
    }
    return out;
}

const std::vector<std::string> &help_lines() {
    static const std::vector<std::string> lines = [] {
        std::vector<std::string> all{
            "Keys",
            "  Up Down PgUp PgDn Home End  choose a channel      Enter  its details, back",
            "  Left Right  sort by the column beside             r      reverse",
            "  /  filter by name: type, then Enter; Esc clears   t      the next type",
            "  !  only channels in trouble                       Space  pause",
            "  [ ] { }  in a record: one or 60 samples back, on  q      leave",
            "",
            "States"};
        for (int i = kTroubles - 1; i > 0; --i)
            all.push_back(text("  %-10s %s", word_of(static_cast<Trouble>(i)),
                               meaning_of(static_cast<Trouble>(i))));
        all.insert(
            all.end(),
            {"", "WRITER and READER: * a living process holds the end, ! a dead one does,",
             "  ? not known; without a sign: the last one. WAIT: writers and readers that wait",
             "OLDEST: how long the next message has waited at the least. PUT, GOT: since",
             "  the last one. Rates: of two seconds, or of the time between two looks."});
        return all;
    }();
    return lines;
}

} // namespace

void Top::run() {
    take();
    double due = seconds_now() + seconds_;
    for (;;) {
        draw();
        const double left = std::max(due - seconds_now(), 0.0);
        const int key = terminal_.key(static_cast<int>(std::lround(std::min(left, 3600.0) * 1000)));
        if (key != kNoKey && !press(key)) return;
        if (seconds_now() < due) continue;
        due = seconds_now() + seconds_;
        if (paused_ && !source_.is_record()) continue;
        if (!paused_) source_.step(1);
        take();
    }
}

void Top::take() {
    sample_ = source_.take();
    arrange();
}

// Sorts and filters, and finds the selected channel again.
void Top::arrange() {
    rows_ = rows_of(sample_, choice_);
    for (size_t i = 0; i < rows_.size(); ++i)
        if (sample_.channels[rows_[i]].number == selected_number_) cursor_ = static_cast<int>(i);
    cursor_ = std::clamp(cursor_, 0, std::max(static_cast<int>(rows_.size()) - 1, 0));
    first_ = std::clamp(first_, std::max(cursor_ - page_rows() + 1, 0), cursor_);
}

int Top::page_rows() const { return std::max(terminal_.rows() - kHeadRows - kFootRows, 1); }

const ChannelSample *Top::selected() const {
    const auto index = static_cast<size_t>(cursor_);
    return index < rows_.size() ? &sample_.channels[rows_[index]] : nullptr;
}

bool Top::press(int key) {
    if (key == kGone) return false;
    if (typing_) {
        press_in_filter(key);
        return true;
    }
    switch (key) {
    case 'q':
    case 'Q':
        if (page_ == Page::list) return false;
        page_ = Page::list;
        return true;
    case kEscape:
        if (page_ == Page::list) choice_.filter.clear();
        page_ = Page::list;
        arrange();
        return true;
    case '?':
    case 'h':
        page_ = page_ == Page::help ? Page::list : Page::help;
        scrolled_ = 0;
        return true;
    case kEnter:
        page_ = page_ == Page::list && selected() ? Page::details : Page::list;
        scrolled_ = 0;
        return true;
    case ' ':
        paused_ = !paused_;
        return true;
    case '[':
    case ']':
    case '{':
    case '}':
        move_in_time(key);
        return true;
    default:
        press_in_list(key);
        return true;
    }
}

void Top::move_in_time(int key) {
    if (!source_.is_record()) return;
    paused_ = true;
    source_.step(key == '[' ? -1 : key == ']' ? 1 : key == '{' ? -60 : 60);
    take();
}

void Top::press_in_list(int key) {
    const int most = static_cast<int>(columns().size());
    int moved = 0;
    switch (key) {
    case kUp:
        moved = -1;
        break;
    case kDown:
        moved = 1;
        break;
    case kPageUp:
        moved = -page_rows();
        break;
    case kPageDown:
        moved = page_rows();
        break;
    case kHome:
        moved = -100000;
        break;
    case kEnd:
        moved = 100000;
        break;
    case kLeft:
    case kRight:
        choice_.sorted_by = (choice_.sorted_by + (key == kLeft ? most - 1 : 1)) % most;
        choice_.reversed = false;
        break;
    case 'r':
        choice_.reversed = !choice_.reversed;
        break;
    case 't':
        choice_.type = next_type(sample_, choice_.type);
        break;
    case '!':
        choice_.trouble_only = !choice_.trouble_only;
        break;
    case '/':
        typing_ = true;
        page_ = Page::list;
        break;
    default:
        break;
    }
    if (page_ != Page::list) {
        scrolled_ = std::max(scrolled_ + moved, 0);
        return;
    }
    if (moved != 0) {
        cursor_ = std::clamp(cursor_ + moved, 0, std::max(static_cast<int>(rows_.size()) - 1, 0));
        selected_number_ = selected() ? selected()->number : -1;
    }
    arrange();
}

void Top::press_in_filter(int key) {
    if (key == kEnter || key == kEscape) {
        typing_ = false;
        if (key == kEscape) choice_.filter.clear();
    } else if (key == kErase) {
        std::string &filter = choice_.filter; // a character may be several bytes
        while (!filter.empty() && (static_cast<unsigned char>(filter.back()) & 0xC0) == 0x80)
            filter.pop_back();
        if (!filter.empty()) filter.pop_back();
    } else if (key >= ' ') {
        choice_.filter += utf8_of(static_cast<char32_t>(key));
    }
    arrange();
}

void Top::draw() {
    arrange(); // the size may be another
    draw_head();
    if (page_ == Page::help) {
        draw_lines(help_lines());
    } else if (page_ == Page::details && selected()) {
        draw_lines(details_of(*selected(), sample_.time, source_.view()));
    } else {
        draw_titles();
        draw_rows();
    }
    draw_foot();
    terminal_.show();
}

void Top::draw_head() {
    const int width = terminal_.columns();
    std::string title =
        " halvo-mon top  " + source_.title() + "  " +
        time_text(sample_.time, source_.is_record() ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S");
    if (sample_.up)
        title += text("  segment %d, %.1f MiB", sample_.id,
                      static_cast<double>(sample_.bytes) / kMegabyte);
    if (paused_) title += "  PAUSED";
    terminal_.put(0, 0, width, title, Look::reverse);
    if (!sample_.up) {
        terminal_.put(1, 0, width, sample_.fault, Look::alarm);
        terminal_.put(2, 0, width, "waiting for a segment", Look::bold);
        return;
    }
    int64_t depth = 0;
    double in = 0, out = 0;
    for (const ChannelSample &channel : sample_.channels) {
        depth += channel.depth();
        in += channel.in_rate;
        out += channel.out_rate;
    }
    const std::string totals =
        text("%zu channels  depth %lld  in %.0f/s  out %.0f/s  ", sample_.channels.size(),
             static_cast<long long>(depth), in, out);
    const std::string troubles = troubles_of(sample_);
    terminal_.put(1, 0, width, totals, Look::bold);
    const auto at = static_cast<int>(totals.size());
    terminal_.put(1, at, width - at, troubles.empty() ? "all well" : troubles,
                  troubles.empty() ? Look::good : Look::alarm);
    std::string choices = std::string("sorted by ") +
                          columns()[static_cast<size_t>(choice_.sorted_by)].title +
                          (choice_.reversed ? " reversed" : "");
    if (choice_.type) choices += text("  type %c", choice_.type);
    if (choice_.trouble_only) choices += "  only trouble";
    if (typing_ || !choice_.filter.empty())
        choices += "  name /" + choice_.filter + (typing_ ? "_" : "");
    if (rows_.size() != sample_.channels.size()) choices += text("  %zu shown", rows_.size());
    terminal_.put(2, 0, width, choices, typing_ ? Look::bold : Look::dim);
}

void Top::draw_titles() {
    terminal_.put(3, 0, terminal_.columns(), "", Look::reverse);
    int at = 0;
    for (const Placed &place : placed(terminal_.columns(), choice_.sorted_by)) {
        const Column &column = columns()[static_cast<size_t>(place.column)];
        std::string title = column.title;
        if (column.numeric && place.column != kStateColumn)
            title.insert(
                0, static_cast<size_t>(std::max(place.width - static_cast<int>(title.size()), 0)),
                ' ');
        terminal_.put(3, at, place.width, title,
                      place.column == choice_.sorted_by ? Look::bold : Look::reverse);
        at += place.width + 1;
    }
}

void Top::draw_rows() {
    const auto places = placed(terminal_.columns(), choice_.sorted_by);
    for (int row = 0; row < page_rows(); ++row) {
        const auto index = static_cast<size_t>(first_) + static_cast<size_t>(row);
        std::string line;
        Look look = Look::plain;
        if (index < rows_.size()) {
            const ChannelSample &channel = sample_.channels[rows_[index]];
            look = first_ + row == cursor_ ? Look::chosen : look_of(channel.trouble);
            terminal_.put(kHeadRows + row, 0, terminal_.columns(), "", look);
            int at = 0;
            for (const Placed &place : places) {
                const Column &column = columns()[static_cast<size_t>(place.column)];
                std::string cell = column.text(channel, sample_.time);
                const auto room = static_cast<size_t>(place.width);
                if (column.numeric && place.column != kStateColumn && cell.size() < room)
                    cell.insert(0, room - cell.size(), ' ');
                terminal_.put(kHeadRows + row, at, place.width, cell, look);
                at += place.width + 1;
            }
        } else {
            terminal_.put(kHeadRows + row, 0, terminal_.columns(), "");
        }
    }
}

void Top::draw_lines(const std::vector<std::string> &lines) {
    const int room = terminal_.rows() - kHeadRows + 1 - kFootRows;
    scrolled_ = std::clamp(scrolled_, 0, std::max(static_cast<int>(lines.size()) - room, 0));
    for (int row = 0; row < room; ++row) {
        const auto index = static_cast<size_t>(scrolled_) + static_cast<size_t>(row);
        terminal_.put(kHeadRows - 1 + row, 0, terminal_.columns(),
                      index < lines.size() ? lines[index] : "",
                      index == 0 ? Look::bold : Look::plain);
    }
}

void Top::draw_foot() {
    const char *keys = " q quit  Up/Down choose  Enter details  </> sort  r reverse  / filter  t "
                       "type  ! trouble  Space pause  ? help";
    if (terminal_.columns() < 112)
        keys = " q quit Enter details Left/Right sort r rev / filter t type ! trouble ? help";
    if (typing_) keys = " type a part of a name; Enter keeps it, Esc clears it";
    if (page_ != Page::list) keys = " q back  Up/Down PgUp/PgDn scroll  Space pause";
    if (source_.is_record() && page_ == Page::list && !typing_)
        keys = " q quit Enter details [ ] one sample { } 60 samples Space play / filter ? help";
    terminal_.put(terminal_.rows() - 1, 0, terminal_.columns(), keys, Look::reverse);
}

} // namespace halvo::mon
