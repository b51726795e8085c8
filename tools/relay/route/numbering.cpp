#include "tools/relay/route/numbering.h"

#include <sys/random.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/relay/base/hash.h"
#include "tools/relay/base/log.h"

namespace halvo::relay {

namespace {

uint64_t random_source() {
    uint64_t number = 0;
    while (number < 256 &&
           getrandom(&number, sizeof number, 0) == static_cast<ssize_t>(sizeof number))
        number &= ~uint64_t{0xff};
    return number;
}

std::string text_of_source(uint64_t source) {
    char text[24];
    std::snprintf(text, sizeof text, "%016" PRIx64, source);
    return text;
}

} // namespace

Numbering::Numbering(const RouteConfig &route, StateFile &state, Source &source)
    : route_(route), state_(state), source_(source) {
    now_ = state_.sending();
    if (now_.source == 0)
        begin_source("the route is new");
    else
        resume(text_of(route_.local()));
}

void Numbering::resume(const std::string &end) {
    // consumed_since() lets the source look at its end, which describe() then tells of.
    const std::optional<uint32_t> consumed = source_.consumed_since(now_);
    Place place{};
    source_.describe(place);
    if (place.incarnation != now_.place.incarnation)
        return begin_source(end + " was made anew, or the machine started");
    if (!consumed && route_.local().kind == Endpoint::file_queue)
        return begin_source(end + " holds other messages than it did");
    if (!consumed || *consumed > now_.listed)
        log(Level::warning, route_.name, "another-reader",
            "another program has read from " + end +
                " meanwhile; messages that were in flight may arrive twice");
    const uint32_t done = std::min(consumed.value_or(now_.listed), now_.listed);
    sent_before_ = now_.listed - done;
    advance(done);
    now_.place = place;
    now_.count = now_.listed = 0;
    state_.store(now_);
    if (sent_before_ > 0)
        log(Level::info, route_.name, "recovered",
            std::to_string(sent_before_) + " messages were in flight and are sent again with the "
                                           "same numbers");
}

void Numbering::begin_source(const std::string &why) {
    now_ = {};
    now_.source = random_source();
    std::fill(std::begin(now_.next), std::end(now_.next), 1);
    source_.describe(now_.place);
    state_.store(now_);
    log(Level::info, route_.name, "new-source", text_of_source(now_.source) + ": " + why);
}

uint32_t Numbering::shard_of(const Message &message) const {
    const auto shards = static_cast<uint32_t>(route_.shards);
    if (shards == 1) return 0;
    if (route_.key_length == 0) return static_cast<uint32_t>(message.type) % shards;
    const uint32_t begin = std::min(route_.key_offset, message.length);
    const uint32_t length = std::min(route_.key_length, message.length - begin);
    return static_cast<uint32_t>(hash_of(message.data + begin, length) % shards);
}

void Numbering::plan(uint32_t count) {
    source_.describe(now_.place);
    now_.count = now_.listed = count;
    uint64_t next[kMostShards];
    std::copy(std::begin(now_.next), std::end(now_.next), next);
    numbers_.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        now_.shard[i] = static_cast<uint8_t>(route_.shards == 1 ? 0 : shard_of(source_.message(i)));
        numbers_[i] = next[now_.shard[i]]++;
    }
    state_.store(now_);
}

Identity Numbering::identity(uint32_t index) const {
    return {now_.source + now_.shard[index], numbers_[index]};
}

// A file queue commits whole transactions: for a part of one these messages are taken again.
void Numbering::before_release(uint32_t count) {
    if (route_.local().kind != Endpoint::file_queue || count == 0 || count == now_.count) return;
    sent_before_ = std::max(sent_before_, now_.listed);
    const Place before = now_.place;
    source_.give_back();
    const uint32_t again = source_.take(count, 0);
    Place place{};
    source_.describe(place);
    // Messages may have the same words: the place tells them apart.
    if (again != count || place.fingerprint != before.fingerprint ||
        !std::equal(std::begin(place.position), std::end(place.position), before.position))
        throw EndError(text_of(route_.local()) + ": another program has read from it meanwhile");
    plan(count);
}

// Moves the numbers over the first messages of the list.
void Numbering::advance(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) ++now_.next[now_.shard[i]];
}

void Numbering::released(uint32_t count) {
    sent_before_ = std::max(sent_before_, static_cast<uint32_t>(numbers_.size())) - count;
    advance(count);
    numbers_.clear();
}

} // namespace halvo::relay
