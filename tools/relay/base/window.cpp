#include "tools/relay/base/window.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace halvo::relay {

namespace {

uint8_t bit(uint64_t number) { return static_cast<uint8_t>(1U << (number % 8)); }
uint8_t &byte(Window &window, uint64_t number) { return window.seen[number % kWindow / 8]; }

// A process dies between two instructions: the compiler must keep the order of the stores, and the
// processor does.
void in_order() { std::atomic_signal_fence(std::memory_order_seq_cst); }

} // namespace

Windows::Windows(Window (&table)[kSources]) : table_(table) {
    for (const Window &window : table_)
        if (window.source) latest_ = std::max(latest_, window.used);
}

Window *Windows::find(uint64_t source) const {
    for (Window &window : table_)
        if (window.source == source) return &window;
    return nullptr;
}

Window &Windows::make(uint64_t source, uint64_t number) {
    Window *oldest = &table_[0];
    for (Window &window : table_) {
        if (window.source == 0) {
            oldest = &window;
            break;
        }
        if (window.used < oldest->used) oldest = &window;
    }
    oldest->source = 0;
    in_order();
    std::memset(oldest->seen, 0, sizeof oldest->seen);
    oldest->first = oldest->highest = number;
    oldest->used = 0;
    in_order();
    oldest->source = source;
    return *oldest;
}

bool Windows::has(uint64_t source, uint64_t number) const {
    Window *window = find(source);
    if (!window || number > window->highest || window->highest - number >= kWindow) return false;
    return byte(*window, number) & bit(number);
}

uint64_t Windows::add(uint64_t source, uint64_t number) {
    Window *found = find(source);
    Window &window = found ? *found : make(source, number);
    uint64_t missing = 0;
    if (number > window.highest) {
        const uint64_t steps = std::min<uint64_t>(number - window.highest, kWindow);
        for (uint64_t next = window.highest + 1; next <= window.highest + steps; ++next) {
            uint8_t &seen = byte(window, next); // still of the number that falls out
            if (next > window.first + kWindow && !(seen & bit(next))) ++missing;
            seen = static_cast<uint8_t>(seen & ~bit(next));
        }
        missing += number - window.highest - steps; // a leap beyond the whole window
        in_order();
        byte(window, number) |= bit(number);
        in_order();
        window.highest = number;
    } else if (window.highest - number < kWindow) {
        byte(window, number) |= bit(number);
    }
    if (window.used != latest_ || latest_ == 0) window.used = ++latest_;
    return missing;
}

} // namespace halvo::relay
