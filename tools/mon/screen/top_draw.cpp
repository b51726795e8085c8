// halvo-mon top: what is drawn where.
#include <algorithm>

#include "tools/frame/text.h"
#include "tools/mon/screen/details.h"
#include "tools/mon/screen/top.h"

namespace halvo::mon {

using tools::text;

namespace {

constexpr double kMegabyte = 1 << 20;

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

const Column &column_of(const Placed &place) {
    return columns()[static_cast<size_t>(place.column)];
}

// A text at the side of its column where that has its cells.
std::string placed_text(std::string cell, const Placed &place) {
    const auto room = static_cast<size_t>(place.width);
    if (column_of(place).right && cell.size() < room) cell.insert(0, room - cell.size(), ' ');
    return cell;
}

} // namespace

void Top::draw() {
    arrange(); // the size may be another
    draw_title();
    if (sample_.up) {
        draw_totals();
        draw_choice();
    } else {
        terminal_.put(1, 0, terminal_.columns(), sample_.fault, Look::alarm);
        terminal_.put(2, 0, terminal_.columns(), "waiting for a segment", Look::bold);
    }
    if (page_ == Page::help) {
        draw_lines(help_lines());
    } else if (page_ == Page::details && selected()) {
        draw_lines(details_of(*selected(), sample_.time, source_.view()));
    } else {
        const std::vector<Placed> places = placed(terminal_.columns(), choice_.sorted_by);
        draw_heads(places);
        for (int row = 0; row < page_rows(); ++row) draw_row(row, places);
    }
    draw_foot();
    terminal_.show();
}

void Top::draw_title() {
    std::string title =
        " halvo-mon top  " + source_.title() + "  " +
        tools::local_time(sample_.time, source_.is_record() ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S");
    if (sample_.up)
        title += text("  segment %d, %.1f MiB", sample_.id,
                      static_cast<double>(sample_.bytes) / kMegabyte);
    if (paused_) title += "  PAUSED";
    terminal_.put(0, 0, terminal_.columns(), title, Look::reverse);
}

void Top::draw_totals() {
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
    terminal_.put(1, 0, terminal_.columns(), totals, Look::bold);
    const auto at = static_cast<int>(totals.size());
    terminal_.put(1, at, terminal_.columns() - at, troubles.empty() ? "all well" : troubles,
                  troubles.empty() ? Look::good : Look::alarm);
}

void Top::draw_choice() {
    std::string choice = std::string("sorted by ") +
                         columns()[static_cast<size_t>(choice_.sorted_by)].title +
                         (choice_.reversed ? " reversed" : "");
    if (choice_.type) choice += text("  type %c", choice_.type);
    if (choice_.trouble_only) choice += "  only trouble";
    if (typing_ || !choice_.filter.empty())
        choice += "  name /" + choice_.filter + (typing_ ? "_" : "");
    if (rows_.size() != sample_.channels.size()) choice += text("  %zu shown", rows_.size());
    terminal_.put(2, 0, terminal_.columns(), choice, typing_ ? Look::bold : Look::dim);
}

void Top::draw_heads(const std::vector<Placed> &places) {
    terminal_.put(3, 0, terminal_.columns(), "", Look::reverse);
    int at = 0;
    for (const Placed &place : places) {
        terminal_.put(3, at, place.width, placed_text(column_of(place).title, place),
                      place.column == choice_.sorted_by ? Look::bold : Look::reverse);
        at += place.width + 1;
    }
}

void Top::draw_row(int row, const std::vector<Placed> &places) {
    const auto index = static_cast<size_t>(first_) + static_cast<size_t>(row);
    const int line = kTopRows + row;
    if (index >= rows_.size()) return terminal_.put(line, 0, terminal_.columns(), "");
    const ChannelSample &channel = sample_.channels[rows_[index]];
    const Look look = first_ + row == cursor_ ? Look::chosen : look_of(channel.trouble);
    terminal_.put(line, 0, terminal_.columns(), "", look);
    int at = 0;
    for (const Placed &place : places) {
        const std::string cell = column_of(place).text(channel, sample_.time);
        terminal_.put(line, at, place.width, placed_text(cell, place), look);
        at += place.width + 1;
    }
}

void Top::draw_lines(const std::vector<std::string> &lines) {
    const int room = terminal_.rows() - kTopRows + 1 - kFootRows;
    scrolled_ = std::clamp(scrolled_, 0, std::max(static_cast<int>(lines.size()) - room, 0));
    for (int row = 0; row < room; ++row) {
        const auto index = static_cast<size_t>(scrolled_) + static_cast<size_t>(row);
        terminal_.put(kTopRows - 1 + row, 0, terminal_.columns(),
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
