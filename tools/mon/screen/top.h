// halvo-mon top: the live screen of all channels.
#pragma once

#include "tools/mon/look/source.h"
#include "tools/mon/screen/terminal.h"
#include "tools/mon/screen/top_rows.h"

namespace halvo::mon {

// What is on the screen, and what keys do to it. Returns when the operator leaves.
class Top {
public:
    Top(Source &source, Terminal &terminal, double seconds)
        : source_(source), terminal_(terminal), seconds_(seconds), paused_(source.is_record()) {}
    void run();

private:
    enum class Page { list, details, help };
    // Title, totals, choice, heads of the columns; keys.
    static constexpr int kTopRows = 4, kFootRows = 1;

    bool press(int key); // false to leave
    void press_in_list(int key);
    void press_in_filter(int key);
    void move_in_time(int key);
    void take();
    void arrange();
    void draw();
    void draw_title();
    void draw_totals();
    void draw_choice();
    void draw_heads(const std::vector<Placed> &places);
    void draw_row(int row, const std::vector<Placed> &places);
    void draw_lines(const std::vector<std::string> &lines);
    void draw_foot();
    int page_rows() const;
    const ChannelSample *selected() const;

    Source &source_;
    Terminal &terminal_;
    double seconds_;
    Sample sample_;
    Choice choice_;
    std::vector<size_t> rows_;
    Page page_ = Page::list;
    int selected_number_ = -1;     // channel; it stays selected wherever it is sorted to
    int cursor_ = 0, first_ = 0;   // row of the selection, first row shown
    int scrolled_ = 0;             // lines of details
    bool paused_, typing_ = false; // a record stands still until it is played
};

} // namespace halvo::mon
