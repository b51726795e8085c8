// smsqm_print: rates and per-type counts of all channels.
#include <bitset>
#include <cstdio>
#include <cstring>

#include "print/cells.h"

using namespace halvo;

namespace {

// Message types whose name in the segment contains the text searched for.
struct Types {
    std::bitset<HALVO_TYPES> matching, in_use;
};

struct TypeName {
    char text[HALVO_NAME_SIZE + 1] = {};
    explicit TypeName(const halvo_counter &type) { std::memcpy(text, type.tname, HALVO_NAME_SIZE); }
};

Types find_types(const halvo_segment *segment, const char *needle) {
    Types types;
    for (int t = 1; segment && t < HALVO_TYPES; ++t) {
        const halvo_counter &type = segment->qtcnt[t];
        const auto index = static_cast<size_t>(t);
        types.matching[index] = std::strstr(TypeName(type).text, needle) != nullptr;
        types.in_use[index] = load(type.tstart) != 0;
    }
    return types;
}

void print_header(const halvo_segment *segment, const Types &types) {
    std::printf("%-11s#    %4s %4s %8s %8s ", "큐", "**", "TPS", "TOTAL", "MASTER");
    for (size_t t = 1; t < HALVO_TYPES; ++t)
        if (types.matching[t] && types.in_use[t])
            std::printf("%8s ", TypeName(segment->qtcnt[t]).text);
    std::printf("\n");
}

void print_counter(const halvo_counter &counter) {
    std::printf("%5lld %2d ", static_cast<long long>(counter.count),
                static_cast<int>(load(counter.ratio)));
}

void print_row(const Facts &facts, const Types &types) {
    print_name(facts, kTypesName);
    std::printf(" %s ", facts.activity);
    std::printf("%5lld %7lld ", static_cast<long long>(facts.rate),
                static_cast<long long>(facts.q->pcnt.count));
    if (!has_prefix(facts.name, "xcn")) {
        print_counter(facts.q->tcnt[0]);
        // Kept: a type that is not in use has blanks here but no place in the header.
        for (size_t t = 1; t < HALVO_TYPES; ++t) {
            if (!types.matching[t]) continue;
            if (types.in_use[t])
                print_counter(facts.q->tcnt[t]);
            else
                std::printf("%5s %2s ", "", "");
        }
    }
    std::printf("\n");
}

} // namespace

int q_tstatprint(const char *needle) noexcept {
    const CancellationOff whole_call;
    const int32_t now = begin_print();
    q_printlogo();
    const halvo_segment *segment = attached_segment();
    const Types types = find_types(segment, needle ? needle : "");
    print_header(segment, types);
    walk(Channels::all, [&](const Visit &visit) {
        print_row(facts_of(visit, now, Rate::exact, Baseline::zeros()), types);
    });
    std::fflush(stdout);
    return 0;
}
