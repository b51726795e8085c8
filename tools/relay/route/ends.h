// The local ends of a route: where a route out takes messages from, and where a route in puts them; a
// channel or a file queue. What goes wrong is an EndError; the object is then given up and made anew,
// which recovers the end.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/relay/base/config.h"
#include "tools/relay/base/state.h"
#include "tools/relay/rabbit/broker.h"

namespace halvo::relay {

class EndError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Message {
    const char *data = nullptr;
    uint32_t length = 0;
    int type = 0;
};

class Source {
public:
    virtual ~Source() = default;
    // Marks up to `most` messages, waiting for the first. Returns how many; 0: none came. At most
    // one batch at a time.
    virtual uint32_t take(uint32_t most, int milliseconds) = 0;
    virtual Message message(uint32_t index) = 0; // of the batch; valid until the next call
    virtual void release(uint32_t count) = 0;    // these are consumed, the others given back
    virtual void give_back() = 0;                // the whole batch
    virtual void describe(Place &place) = 0;     // where the end stands, or the batch begins
    virtual int64_t waiting() = 0;               // messages, -1 when nobody knows
    // How many of the messages behind a place of this incarnation have been consumed since; nothing
    // when that cannot be told.
    virtual std::optional<uint32_t> consumed_since(const Sending &sending) = 0;
};

class Sink {
public:
    virtual ~Sink() = default;
    virtual uint32_t longest() const = 0; // bytes of a message
    virtual uint32_t most() const = 0;    // messages in a batch
    // Writes a message as index-th of a batch, not readable yet. False: no room within the limit.
    virtual bool mark(uint32_t index, const Incoming &message, int milliseconds) = 0;
    virtual void commit() = 0;
    virtual void drop() = 0;                 // the batch
    virtual void describe(Place &place) = 0; // where the batch begins
    // How many of the messages that were to be committed at a place of this incarnation are in;
    // nothing when that cannot be told.
    virtual std::optional<uint32_t> committed_since(const Arriving &arriving) = 0;
};

// default_type: of messages that have none. Throw EndError.
std::unique_ptr<Source> open_source(const Endpoint &endpoint, int default_type);
// arriving: what a dead predecessor may have left; a channel's sink enters itself as the heir.
std::unique_ptr<Sink> open_sink(const Endpoint &endpoint, int default_type, Arriving &arriving);

std::unique_ptr<Source> open_channel_source(const std::string &channel);
std::unique_ptr<Sink> open_channel_sink(const std::string &channel, int default_type,
                                        Arriving &arriving);
std::unique_ptr<Source> open_file_source(const std::string &path, int default_type);
std::unique_ptr<Sink> open_file_sink(const std::string &path);

} // namespace halvo::relay
