#include "print/cells.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace halvo {

namespace {

template <class... Values>
void print_built(Values... values) noexcept {
    const CancellationOff whole;
    std::printf(cellformat, values...); // the format was built into cellformat just before
}

// Puts the widths in place of the pattern's '#'s. By hand, for a table has thousands of cells.
template <class... Widths>
void build_format(const char *pattern, Widths... widths) noexcept {
    const int all[] = {widths...};
    const int *width = all;
    char *to = cellformat;
    char *const end = cellformat + sizeof cellformat - 1;
    for (; *pattern; ++pattern) {
        if (*pattern == '#')
            to = std::to_chars(to, end, *width++).ptr;
        else if (to < end)
            *to++ = *pattern;
    }
    *to = '\0';
}

const char *or_empty(const char *text) noexcept { return text ? text : ""; }

} // namespace

void print_attribute(int attribute) noexcept { std::printf("%c[%dm", 27, attribute); }

void print_attributes(const halvo_print_option *option) noexcept {
    if (!option) return;
    for (const int attribute : {option->attr1, option->attr2})
        if (attribute > 0) print_attribute(attribute);
}

void print_activity(const Facts &facts) noexcept {
    std::printf("%s%s", facts.activity, load(facts.q->throttled) ? "△" : " ");
}

bool has_prefix(const char *name, const char *prefix) noexcept {
    return std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

void print_name(const Facts &facts, const NameCell &cell) noexcept {
    const bool indented = cell.flush_left ? !has_prefix(facts.name, cell.flush_left)
                                          : has_prefix(facts.name, cell.indented);
    const int indent = indented ? 1 : 0;
    std::printf("%*s%-*s#%2d%c", indent, "", cell.width - indent, facts.name, facts.channel,
                facts.q->qtype);
}

void print_slots(const halvo_channel *q) noexcept {
    const RingLetters ring = ring_letters(q);
    std::printf("%c%c %s %s", ring.writing, ring.reading, buffer_letters(q, q->wbufs).text,
                buffer_letters(q, q->rbufs).text);
}

void print_total(const halvo_channel *q) noexcept {
    std::putchar(' ');
    q_print_num(7, static_cast<int64_t>(q->tcnt[0].count));
}

} // namespace halvo

using namespace halvo;

void q_print_txt(int width, const char *text) noexcept {
    build_format("%#s", width);
    print_built(or_empty(text));
}

void q_print_txt_indent(int width, const char *text, int indent) noexcept {
    const int blanks = std::max(indent, 0);
    const int rest = std::max(std::abs(width) - blanks, 0);
    build_format("%#s%#s", blanks, width < 0 ? -rest : rest);
    print_built("", or_empty(text));
}

void q_print_num(int width, int64_t value) noexcept {
    if (value == 0) return q_print_txt(width, "");
    build_format("%#lld", width);
    print_built(static_cast<long long>(value));
}

void q_print_num2(int width1, int64_t first, int width2, int64_t second) noexcept {
    q_print_num(width1, first);
    q_print_txt(width2, second != 0 ? format_cell("/%lld", static_cast<long long>(second)) : "");
}

int q_print_elapsed_str(char *dst, int32_t stamp) noexcept {
    constexpr int kMinute = 60, kHour = 3600, kDay = 86400;
    if (!dst) return 0;
    dst[0] = '\0';
    if (stamp == 0) return 0;
    const int seconds = age(clock_now(), stamp);
    const int days = seconds / kDay;
    const int hours = seconds % kDay / kHour;
    const int minutes = seconds % kHour / kMinute;
    if (days != 0)
        std::snprintf(dst, HALVO_ELAPSED_SIZE, "%02d-%02d:%02d", days, hours, minutes);
    else
        std::snprintf(dst, HALVO_ELAPSED_SIZE, "%02d:%02d:%02d", hours, minutes, seconds % kMinute);
    return 0;
}

void q_print_elapsed(int32_t stamp) noexcept {
    const CancellationOff whole_call;
    char text[HALVO_ELAPSED_SIZE];
    q_print_elapsed_str(text, stamp);
    if (stamp == 0)
        std::printf("%8s", "");
    else
        std::printf("%s", text);
}

void q_print_rwrw_bufs(const halvo_channel *channel) noexcept {
    const CancellationOff whole_call;
    if (!channel) return;
    const RingLetters ring = ring_letters(channel);
    std::printf("%c%c %s", ring.writing, ring.reading,
                buffer_letters(channel, channel->rbufs).text);
}
