// smsqm_print: the fixed table of all channels.
#include <cstdio>
#include <ctime>

#include "print/cells.h"

using namespace halvo;

namespace {

void print_header() {
    std::printf("%-13s#    %4s %10s %4s %6s %9s %6s  %6s %9s %5s %5s %5s %5s WR/WRBUF FLAGS\n",
                "큐", "**", "구성", "TPS", "잔량M", "처리M", "오류", "잔량F", "처리F", "pidw",
                "pidr", "pidwf", "pidrf");
}

// Day of month, hour, minute, second in eight digits, or as many blanks.
void print_stamp(int32_t stamp) {
    char text[16] = "";
    if (stamp != 0) {
        const time_t seconds = stamp;
        tm local{};
        localtime_r(&seconds, &local);
        std::strftime(text, sizeof text, "%d%H%M%S", &local);
    }
    std::printf(" %8s", text);
}

void print_numbers(const Facts &facts) {
    const halvo_channel &q = *facts.q;
    std::printf("%5d*%4d %4lld %6lld %9lld %7lld %6lld %9lld %5d %5d %5d %5d ",
                static_cast<int>(q.qbsz), static_cast<int>(q.qcnt),
                static_cast<long long>(facts.rate), static_cast<long long>(facts.ring_backlog),
                static_cast<long long>(facts.ring_done), static_cast<long long>(facts.errors),
                static_cast<long long>(file_backlog(q)), static_cast<long long>(facts.file_done),
                static_cast<int>(load(q.pidp)), static_cast<int>(load(q.pidg)),
                static_cast<int>(load(q.pidpf)), static_cast<int>(load(q.pidgf)));
}

void print_row(const Facts &facts) {
    print_name(facts, kTableName);
    std::printf(" ");
    print_activity(facts);
    print_numbers(facts);
    print_slots(facts.q);
    print_stamp(load(facts.q->wtime));
    print_stamp(load(facts.q->rtime));
    print_total(facts.q);
    std::printf(" %ld\n", static_cast<long>(load(facts.q->tcnt[0].ratio)));
}

} // namespace

int q_statprint_classic(char mode) noexcept {
    const CancellationOff whole_call;
    const int32_t now = begin_print();
    q_printlogo();
    int rows = 0;
    walk(Channels::all, [&](const Visit &visit) {
        const Facts facts =
            facts_of(visit, now, Rate::whole_per_millisecond, Baseline::of_mode(mode));
        if (!facts.active && !shows_idle(mode)) return;
        if (rows++ == 0) print_header();
        print_row(facts);
    });
    qm_print_last_msg();
    std::fflush(stdout);
    return 0;
}
