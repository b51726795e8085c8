#include "print/facts.h"

#include <cmath>
#include <cstring>

namespace halvo {

namespace {

// As nobody writes it, it costs no memory; const, it would lie in the file.
halvo_channel zero_image;

// Milliseconds are taken as unsigned, so that the wrap of the clock does no harm.
int64_t exact_rate(int64_t messages, uint32_t milliseconds) {
    if (milliseconds == 0) return 0;
    const long double rate = static_cast<long double>(messages) * 1000 / milliseconds;
    return std::fabs(rate) < 9.2e18L ? static_cast<int64_t>(rate) : 0;
}

// Kept: divides before it multiplies, so that less than a message per millisecond is 0.
int64_t whole_rate(int64_t messages, uint32_t milliseconds) {
    if (milliseconds == 0) return 0;
    return static_cast<int64_t>(static_cast<uint64_t>(messages / int64_t{milliseconds}) * 1000u);
}

int64_t measure(const Visit &visit, Rate rate) {
    if (!lastcheck || rate == Rate::none) return 0;
    halvo_counter &last = lastcheck[visit.channel];
    const uint64_t count = rate_count(*visit.q);
    const int32_t millis = q_day_millis();
    const int64_t messages = difference(count, last.count);
    const auto milliseconds = static_cast<uint32_t>(age(millis, last.tstart));
    last.tstart = millis;
    last.count = count;
    return rate == Rate::exact ? exact_rate(messages, milliseconds)
                               : whole_rate(messages, milliseconds);
}

Replies replies(int channel, int type, const Baseline &baseline) {
    const halvo_channel *q = checked_channel(channel);
    if (!q || !is_type(type)) return {0, 0};
    const halvo_counter &now = q->tcnt[type];
    const halvo_counter &then = baseline[channel].tcnt[type];
    const uint64_t errors_now = now.count - now.ecount, errors_then = then.count - then.ecount;
    return {difference(now.count, then.count), difference(errors_now, errors_then)};
}

void fill_activity(Facts &facts, int32_t now) {
    facts.active = false;
    char *letter = facts.activity;
    for (const End &end : kEnds) {
        const bool active = is_active(*facts.q, end, now);
        facts.active |= active;
        *letter++ = active ? end.letter : '_';
    }
    *letter = '\0';
}

void fill_counts(Facts &facts, const Baseline &baseline) {
    const halvo_channel &q = *facts.q;
    const halvo_channel &then = baseline[facts.channel];
    facts.ring_backlog = ring_backlog(q);
    facts.backlog = static_cast<int64_t>(static_cast<uint64_t>(file_backlog(q)) +
                                         static_cast<uint64_t>(facts.ring_backlog));
    facts.ring_done = difference(q.gcnt.count, then.gcnt.count);
    facts.file_done = difference(q.fgcnt.count, then.fgcnt.count);
    facts.done = shows_ring(q) ? facts.ring_done : facts.file_done;
    facts.errors = difference(q.gcnt.ecount, then.gcnt.ecount);
}

// A slot outside the segment shows as one in an unknown state.
char letter_of(const qmsg *slot) { return slot ? q_statchr(slot) : 'X'; }

} // namespace

const halvo_channel &Baseline::operator[](int channel) const noexcept {
    if (!image_) return zero_image;
    const char *first = static_cast<const char *>(image_) + sizeof(halvo_segment);
    return *reinterpret_cast<const halvo_channel *>(first + static_cast<size_t>(channel) *
                                                                sizeof(halvo_channel));
}

Facts facts_of(const Visit &visit, int32_t now, Rate rate, const Baseline &baseline) noexcept {
    const halvo_channel &q = *visit.q;
    Facts facts{};
    facts.channel = visit.channel;
    facts.q = visit.q;
    std::memcpy(facts.name, q.qname, HALVO_NAME_SIZE);
    fill_activity(facts, now);
    facts.rate = measure(visit, rate);
    fill_counts(facts, baseline);
    facts.has_replies = has_replies(q);
    if (facts.has_replies) {
        facts.acks = replies(load(q.ackq), load(q.acktype), baseline);
        facts.results = replies(load(q.ackq), load(q.rslttype), baseline);
    }
    facts.writer = load(shows_ring(q) ? q.pidp : q.pidpf);
    facts.reader = load(shows_ring(q) ? q.pidg : q.pidgf);
    return facts;
}

RingLetters ring_letters(const halvo_channel *q) noexcept {
    return {letter_of(ring_slot(q, load(q->wpos))), letter_of(ring_slot(q, load(q->rpos)))};
}

BufferLetters buffer_letters(const halvo_channel *q, uint32_t area) noexcept {
    BufferLetters letters{};
    for (int i = 0; i < HALVO_BUFFERS; ++i) letters.text[i] = letter_of(buffer_slot(q, area, i));
    return letters;
}

} // namespace halvo
