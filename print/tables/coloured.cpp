// smsqm_print: the coloured table of the chosen channels, printed cell by cell.
#include <sys/resource.h>

#include <cstdio>

#include "print/cells.h"

using namespace halvo;

namespace {

struct Column {
    int width;
    const char *label;
    const char *behind;
};
constexpr Column kHeader[] = {
    {-18, "QUEUE", " "},     {4, "#T", ""},           {5, "WRWR", ""},
    {6, " SZ*CNT", ""},      {3, "RX", " "},          {8, " TPS/MX ", " "},
    {11, "  잔량/M  ", " "}, {12, "  처리/ERR", " "}, {11, "  응답/ERR", " "},
    {12, "  결과/ERR", " "}, {-8, "버퍼상태", " "},   {6, "최종쓰기", " "},
    {6, "최종읽기", " "},    {6, "Wpid", " "},        {6, "Rpid", " "},
};

void print_header(bool colours) {
    if (colours) print_attributes(qoptHeader);
    for (const Column &column : kHeader) {
        q_print_txt(column.width, column.label);
        std::printf("%s", column.behind);
    }
    if (colours) print_attribute(0);
    std::printf("\n");
}

void print_row(const Facts &facts, int indent) {
    const halvo_channel &q = *facts.q;
    q_print_txt_indent(-18, facts.name, indent);
    std::printf(" %3d%c ", facts.channel, q.qtype);
    print_activity(facts);
    std::printf("%2dK*%3d %2ld ", static_cast<int>(q.qbsz >> 10), static_cast<int>(q.qcnt),
                static_cast<long>(load(q.tcnt[0].ratio)));
    q_print_num2(4, facts.rate, 5, load(q.tpsmx));
    q_print_num2(6, facts.backlog, -5, facts.ring_backlog);
    q_print_num2(7, facts.done, -5, facts.errors);
    q_print_num2(7, facts.acks.count, -6, facts.acks.errors);
    q_print_num2(7, facts.results.count, -6, facts.results.errors);
    q_print_rwrw_bufs(&q);
    q_print_elapsed(load(q.lastin));
    q_print_elapsed(load(q.lastout));
    q_print_num(6, facts.writer);
    std::printf(" ");
    q_print_num(6, facts.reader);
}

} // namespace

int q_statprint2(char mode) noexcept {
    const CancellationOff whole_call;
    if (!attached_segment()) {
        std::puts("qm is null .");
        std::fflush(stdout);
        return 0;
    }
    const bool colours = mode != 'w';
    const int32_t now = begin_print();
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) std::printf("getrusage failed ");
    q_printlogo2(mode);
    print_header(colours);
    int rows = 0;
    walk(channels_of(mode, Channels::chosen_farther), [&](const Visit &visit) {
        const Facts facts = facts_of(visit, now, Rate::exact, Baseline::of_mode(mode));
        if (!facts.active && !shows_idle(mode) && mode != 'w') return;
        if (colours) {
            print_attribute(0);
            print_attributes(&visit.option);
        }
        print_row(facts, visit.option.indent);
        if (colours) print_attribute(0);
        std::printf("\n");
        ++rows;
    });
    qm_print_last_msg2(mode);
    std::fflush(stdout);
    return rows;
}
