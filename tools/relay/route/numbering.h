// Gives the messages of a route out their identities, the same ones again whatever dies between.
#pragma once

#include <string>

#include "tools/relay/route/ends.h"

namespace halvo::relay {

class Numbering {
public:
    // Finds out where a dead relay was. `route` is for the log.
    Numbering(const RouteConfig &route, StateFile &state, Source &source);

    // Numbers the batch that the source has taken, and stores that before anything is sent.
    void plan(uint32_t count);
    uint32_t shard(uint32_t index) const { return now_.shard[index]; }
    Identity identity(uint32_t index) const;
    // Before so many of the batch are released.
    void before_release(uint32_t count);
    void released(uint32_t count);
    // Whether a message was sent once before, for the count of repeats.
    bool is_repeat(uint32_t index) const { return index < sent_before_; }

private:
    void begin_source(const std::string &why);
    void resume(const std::string &end);
    uint32_t shard_of(const Message &message) const;
    void advance(uint32_t count);

    const RouteConfig &route_;
    StateFile &state_;
    Source &source_;
    Sending now_{};
    uint32_t sent_before_ = 0;
    std::vector<uint64_t> numbers_; // of the batch; none behind its release
};

} // namespace halvo::relay
