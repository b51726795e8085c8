// A connection to RabbitMQ with one channel, by librabbitmq: what publisher, consumer and
// administrator share. Everything that goes wrong becomes a BrokerError.
#pragma once

#include <amqp.h>
#include <amqp_framing.h>

#include <string>

#include "tools/relay/rabbit/broker.h"

namespace halvo::relay {

constexpr amqp_channel_t kChannel = 1;

inline amqp_bytes_t bytes_of(std::string_view text) {
    return {text.size(), const_cast<char *>(text.data())};
}
inline std::string text_of(amqp_bytes_t bytes) {
    return bytes.len ? std::string(static_cast<const char *>(bytes.bytes), bytes.len)
                     : std::string();
}

// A time as the library was compiled with: 32-bit packages know no 64-bit seconds, which our own sources
// use, and would read a fraction of a second as none.
class LibraryTime {
public:
    explicit LibraryTime(int milliseconds)
        : seconds_(milliseconds / 1000), microseconds_(long{milliseconds % 1000} * 1000) {}
    const timeval *get() const { return reinterpret_cast<const timeval *>(this); }

private:
    long seconds_, microseconds_;
};

class Rabbit {
public:
    Rabbit(const BrokerConfig &broker, unsigned attempt); // connects, logs in, opens the channel
    ~Rabbit();
    Rabbit(const Rabbit &) = delete;
    Rabbit &operator=(const Rabbit &) = delete;

    amqp_connection_state_t state() const { return state_; }
    bool blocked() const { return blocked_; }

    // Throws unless the call before it was answered as it should be.
    void expect_reply(const char *what);
    void expect(const amqp_rpc_reply_t &reply, const char *what);
    void expect(int status, const char *what);

    // Waits for a frame; false when none came. Sends and watches heartbeats meanwhile.
    bool wait_frame(amqp_frame_t &frame, int milliseconds);
    // Deals with what the broker may send at any time; throws when it closes.
    void handle(const amqp_frame_t &frame);
    void open_channel(); // anew, behind one that the broker has closed

private:
    void open_socket(const BrokerConfig &broker, const Address &address);
    void log_in(const BrokerConfig &broker, const Credentials &credentials);
    [[noreturn]] void closed(const amqp_method_t &method, const std::string &what);

    amqp_connection_state_t state_;
    std::string where_;   // host:port
    bool usable_ = false; // to say goodbye
    bool blocked_ = false;
};

} // namespace halvo::relay
