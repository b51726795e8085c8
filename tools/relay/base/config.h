// The configuration of a relay, a TOML file:
//
//     [relay]
//     key = "/run/halvo.key"            # key file of the segment; needed for channels
//     state = "/var/lib/halvo-relay"    # directory of the state files, one a route
//     log = "text"                      # or "json"
//     metrics = "127.0.0.1:9464"        # or "file:/path"; optional
//
//     [broker]
//     url = "amqp://rabbit1/vhost"      # amqps:// for TLS; an array of them for a cluster
//     credentials = "/etc/halvo/relay.credentials"
//
//     [[route]]
//     name = "mt01"
//     from = "channel:MT01"             # or "fq:/var/q/mo", "amqp:queue"
//     to = "amqp:mt01"
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvo::relay {

// Something an operator has to put right; one line.
class ConfigError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Address {
    std::string host;
    int port = 0;
    bool operator==(const Address &) const = default;
};

struct BrokerConfig {
    std::vector<Address> addresses; // tried one after the other
    std::string virtual_host = "/";
    bool tls = false;
    std::string ca, certificate, key; // PEM files; certificate and key are the client's own
    std::string credentials;          // path of a file; empty: the environment
    int heartbeat = 10;               // seconds
    int confirm_timeout = 30;         // seconds until an unanswered batch counts as lost
    int pause_first = 200;            // milliseconds before the first new attempt; then it doubles
    int pause_most = 10000;
    bool operator==(const BrokerConfig &) const = default;
};

struct Endpoint {
    enum Kind { channel, file_queue, queue } kind = channel;
    std::string name; // of the channel or the broker's queue; path of the file queue
    bool operator==(const Endpoint &) const = default;
};
std::string text_of(const Endpoint &endpoint); // as in the configuration

struct RouteConfig {
    std::string name;
    Endpoint from, to;
    int batch = 200;    // messages in flight at most
    int prefetch = 0;   // of a route in: messages that the broker sends ahead; 0 is twice the batch
    int rate_limit = 0; // messages per second; 0 is none
    uint32_t most_bytes = 0; // of a route out: longer bodies are dead letters; 0 is no limit
    int type = 0;            // of messages that have none: from a file queue, of a foreign sender
    int shards = 1;
    uint32_t key_offset = 0, key_length = 0; // bytes of the body that choose the shard; 0: the type
    bool wait_for_route = true;              // of a route out: on_unroutable = "wait"
    bool reject_poison = true;               // of a route in: on_poison = "reject"
    std::string dead_letters;                // path of a file queue
    std::string dead_letter_queue; // of a route in: the queue that takes what is rejected, if any
    bool classic = false;          // of the queue, for check
    bool single_active = true;     // likewise
    bool operator==(const RouteConfig &) const = default;

    bool outgoing() const { return to.kind == Endpoint::queue; }
    const Endpoint &local() const { return outgoing() ? from : to; }
    const Endpoint &remote() const { return outgoing() ? to : from; }
    // The broker's queues: "NAME", or "NAME.0" .. "NAME.(shards - 1)".
    std::vector<std::string> queues() const;
};

struct Config {
    std::string key_file;
    std::string state_directory;
    bool json_log = false;
    std::string metrics;
    BrokerConfig broker;
    std::vector<RouteConfig> routes;
};

// Reads a whole, sound configuration; throws ConfigError "FILE:LINE: reason".
Config load_config(const std::string &path);

struct Credentials {
    std::string user, password;
};
// From the file (lines "user = ..." and "password = ...", for its owner alone) or from
// HALVO_RELAY_USER and HALVO_RELAY_PASSWORD. Throws ConfigError.
Credentials load_credentials(const BrokerConfig &broker);

} // namespace halvo::relay
