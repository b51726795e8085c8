// halvo-mon top: what keys do, and when the next sample is taken.
#include "tools/mon/screen/top.h"

#include <algorithm>
#include <cmath>

#include "tools/frame/clock.h"

namespace halvo::mon {

using tools::monotonic;

void Top::run() {
    take();
    double due = monotonic() + seconds_;
    for (;;) {
        draw();
        const double left = std::max(due - monotonic(), 0.0);
        const int key = terminal_.key(static_cast<int>(std::lround(std::min(left, 3600.0) * 1000)));
        if (key != kNoKey && !press(key)) return;
        if (monotonic() < due) continue;
        due = monotonic() + seconds_;
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

int Top::page_rows() const { return std::max(terminal_.rows() - kTopRows - kFootRows, 1); }

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

} // namespace halvo::mon
