// smsqm_print: one record of the whole segment for a log file.
#include <cstdio>
#include <ctime>

#include "print/cells.h"

using namespace halvo;

namespace {

void print_date(int32_t now) {
    const time_t seconds = now;
    tm local{};
    localtime_r(&seconds, &local);
    std::printf("%04d-%02d-%02d %02d:%02d:%02d\t", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

void print_count(int64_t count) { std::printf("%lld,", static_cast<long long>(count)); }

void print_group(const Facts &facts) {
    const halvo_channel &q = *facts.q;
    std::printf("%s,%s,%ld,", facts.name, facts.activity, static_cast<long>(load(q.tcnt[0].ratio)));
    print_count(facts.rate);
    std::printf("%ld,", static_cast<long>(load(q.tpsmx)));
    for (const int64_t count :
         {facts.backlog, facts.ring_backlog, facts.done, facts.errors, facts.acks.count,
          facts.acks.errors, facts.results.count, facts.results.errors})
        print_count(count);
    q_print_rwrw_bufs(&q);
    for (const int32_t stamp : {load(q.lastin), load(q.lastout)}) {
        std::printf(",");
        q_print_elapsed(stamp);
    }
    for (const int32_t pid : {facts.writer, facts.reader}) {
        std::printf(",");
        q_print_num(6, pid);
    }
    std::printf("\t");
}

} // namespace

int q_statlog(char mode) noexcept {
    const CancellationOff whole_call;
    const int32_t now = begin_print();
    const Baseline baseline = Baseline::of_snapshot();
    print_date(now);
    // Kept: no mode leaves idle channels out of the log.
    walk(channels_of(mode),
         [&](const Visit &visit) { print_group(facts_of(visit, now, Rate::exact, baseline)); });
    if (qm_print_last_msg() != 0) std::printf("\n");
    std::fflush(stdout);
    return 0;
}
