// smsqm_print: the processes at each channel.
#include <cstdio>
#include <iterator>

#include "print/cells.h"

using namespace halvo;

namespace {

// Kept: this table's limit is neither of the limits of the activity letters.
constexpr int kFreshSeconds = 9;

int pid_if_fresh(int32_t pid, int32_t stamp, int32_t now) {
    return age(now, stamp) <= kFreshSeconds ? static_cast<int>(pid) : 0;
}

void print_clients(const halvo_client (&clients)[HALVO_CLIENTS], int32_t now) {
    const char *separator = "";
    for (const halvo_client &client : clients) {
        std::printf("%s%5d", separator, pid_if_fresh(load(client.pid), load(client.time), now));
        separator = ",";
    }
}

void print_row(const Facts &facts, int32_t now) {
    static constexpr const char *kFormats[] = {"%5d,", "%5d | ", "%5d,", "%5d  || "};
    std::printf("%10s ", facts.name);
    for (size_t i = 0; i < std::size(kEnds); ++i)
        std::printf(kFormats[i], pid_if_fresh(load(facts.q->*kEnds[i].pid),
                                              load(facts.q->*kEnds[i].stamp), now));
    print_clients(facts.q->pclients, now);
    std::printf(" | ");
    print_clients(facts.q->gclients, now);
    std::printf("\n");
}

} // namespace

int q_clientsprint() noexcept {
    const CancellationOff whole_call;
    const int32_t now = begin_print();
    q_printlogo();
    walk(Channels::all, [&](const Visit &visit) {
        print_row(facts_of(visit, now, Rate::none, Baseline::zeros()), now);
    });
    std::fflush(stdout);
    return 0;
}
