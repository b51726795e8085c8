// smsqm_print: the table of the chosen channels.
#include <cstdio>

#include "print/cells.h"

using namespace halvo;

namespace {

constexpr int kNameWidth = 14;

void print_header() {
    std::puts(
        "큐            #    WRWR   구성   R  TPS/MX       잔량(M)     처리(버림)    응답(오류) "
        "  결과(오류)  pidw  pidr 버퍼상태        최종I/O경과     분배량  ");
}

void print_chosen_name(const Facts &facts, int indent) {
    if (indent < 0) return print_name(facts, kTableName);
    const int padding = kNameWidth - indent;
    std::printf("%*s%-*s#%2d%c", indent, "", padding > 0 ? padding : 0, facts.name, facts.channel,
                facts.q->qtype);
}

void print_rate(const Facts &facts) {
    const auto limit = static_cast<long>(load(facts.q->tpsmx));
    std::printf("%2dK*%3d %2ld %4lld", static_cast<int>(facts.q->qbsz >> 10),
                static_cast<int>(facts.q->qcnt), static_cast<long>(load(facts.q->tcnt[0].ratio)),
                static_cast<long long>(facts.rate));
    if (limit != 0)
        std::printf("/%3ld ", limit);
    else
        std::printf("%5s", "");
}

// "(n)" in a field, left-justified; blanks for 0.
void print_bracketed(int width, int64_t value) {
    q_print_txt(-width, value != 0 ? format_cell("(%lld)", static_cast<long long>(value)) : "");
}

void print_replies(const Facts &facts, const Replies &replies) {
    // Kept: the blank cell is one place wider than the filled one.
    if (!facts.has_replies)
        std::printf("%8s", "");
    else
        std::printf("%7lld", static_cast<long long>(replies.count));
    print_bracketed(6, replies.errors);
}

// Minutes and seconds, also when they are hours or days.
void print_minutes(int32_t stamp) {
    const int seconds = age(clock_now(), stamp);
    std::printf("%8s", stamp != 0 ? format_cell("%d:%02d", seconds / 60, seconds % 60) : "");
}

void print_row(const Facts &facts, int indent) {
    print_chosen_name(facts, indent);
    std::printf(" ");
    print_activity(facts);
    print_rate(facts);
    std::printf("%9lld", static_cast<long long>(facts.backlog));
    print_bracketed(5, facts.ring_backlog);
    std::printf("%7lld", static_cast<long long>(facts.done));
    print_bracketed(6, facts.errors);
    print_replies(facts, facts.acks);
    print_replies(facts, facts.results);
    std::printf("%12s ", format_cell("%5d %5d", static_cast<int>(facts.writer),
                                     static_cast<int>(facts.reader)));
    print_slots(facts.q);
    print_minutes(load(facts.q->lastin));
    print_minutes(load(facts.q->lastout));
    print_total(facts.q);
    std::printf("\n");
}

} // namespace

int q_statprint(char mode) noexcept {
    const CancellationOff whole_call;
    const int32_t now = begin_print();
    q_printlogo();
    int rows = 0;
    walk(channels_of(mode), [&](const Visit &visit) {
        const Facts facts = facts_of(visit, now, Rate::exact, Baseline::of_mode(mode));
        if (!facts.active && !shows_idle(mode)) return;
        if (rows++ == 0) print_header();
        print_row(facts, visit.option.indent);
    });
    qm_print_last_msg();
    std::fflush(stdout);
    return 0;
}
