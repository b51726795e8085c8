// What a relay asks of a broker: publish with confirms, fetch and acknowledge, look at and declare
// queues. One engine stands behind it (rabbit.cpp); another needs no more than this.
//
// An object is one connection, used by one thread. What goes wrong is a BrokerError; the object is
// then of no further use, and another one connects anew.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/relay/base/config.h"
#include "tools/relay/base/pause.h"
#include "tools/relay/base/state.h"

namespace halvo::relay {

class BrokerError : public std::runtime_error {
public:
    enum Kind {
        lost,         // the connection, or no answer in time: try again
        denied,       // credentials or rights: try again, an operator must act
        absent,       // no such queue: likewise
        unacceptable, // the broker will never take that
    };
    BrokerError(Kind kind, const std::string &text) : std::runtime_error(text), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

struct Outgoing {
    std::string_view body;
    int type = 0;
    Identity identity;
};

// What became of a message.
enum class Verdict : uint8_t { open, confirmed, refused, returned };

class Publisher {
public:
    virtual ~Publisher() = default;
    // Sends a message, persistent and mandatory.
    virtual void send(const std::string &queue, const Outgoing &message) = 0;
    // Waits for the answers to all that was sent since the last call, in that order. Those that are
    // open at the end were not answered within the limit, or before the connection was lost. A
    // blocked broker may take its time, until the relay is asked to stop: from then on the wait
    // lasts `drain` milliseconds at most.
    virtual std::vector<Verdict> answers(int milliseconds, int drain, const Stop &stop) = 0;
    virtual BrokerError why_open() const = 0; // some were
    // Keeps an idle connection alive.
    virtual void serve() = 0;
    virtual bool blocked() const = 0;              // the broker takes nothing for now
    virtual std::string return_reason() const = 0; // of the last message that was returned
};

struct Incoming {
    uint64_t tag = 0; // of the delivery, rising
    std::string body;
    int type = -1; // -1: it has none
    Identity identity;
};

class Consumer {
public:
    virtual ~Consumer() = default;
    // Adds deliveries to `into` until it has `most`; waits for the first.
    virtual void fetch(std::vector<Incoming> &into, size_t most, int milliseconds) = 0;
    virtual void acknowledge(uint64_t tag) = 0; // that delivery and all before it
    virtual void reject(uint64_t tag) = 0;      // to the queue's dead letters
    virtual int64_t waiting() = 0;              // messages in the queues, not delivered yet
};

// How a queue is to be.
struct QueuePlan {
    std::string name;
    bool classic = false, single_active = true;
    std::string dead_letter_queue; // empty: none
};

class Administrator {
public:
    virtual ~Administrator() = default;
    // Messages in a queue, -1 when there is none of that name.
    virtual int64_t depth(const std::string &queue) = 0;
    // Makes the queue, or throws `unacceptable` when it stands and is another; the text tells in what.
    virtual void declare(const QueuePlan &plan) = 0;
    virtual void try_to_publish() = 0; // a message to nowhere, which comes back
    // Takes nothing from an empty queue. For others the right is not tried.
    virtual void try_to_read(const std::string &queue) = 0;
};

// One after the other of the configured addresses is tried: `attempt` counts on from call to call.
std::unique_ptr<Publisher> connect_publisher(const BrokerConfig &broker, unsigned attempt);
std::unique_ptr<Consumer> connect_consumer(const BrokerConfig &broker, unsigned attempt,
                                           const std::vector<std::string> &queues, int prefetch);
std::unique_ptr<Administrator> connect_administrator(const BrokerConfig &broker, unsigned attempt);

} // namespace halvo::relay
