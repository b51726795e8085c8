#include "tools/relay/rabbit/rabbit.h"

#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

namespace halvo::relay {

namespace {

constexpr int kOpenMillis = 10000;   // for a connection
constexpr int kAnswerMillis = 10000; // for the answer to a call
constexpr int kGoodbyeMillis = 2000;
constexpr unsigned kUnsentMillis = 8000; // what is sent must reach the other machine within
constexpr int kFrameBytes = 131072;

BrokerError::Kind kind_of(int code) {
    switch (code) {
    case AMQP_ACCESS_REFUSED:
    case AMQP_NOT_ALLOWED:
    case AMQP_RESOURCE_LOCKED:
        return BrokerError::denied;
    case AMQP_NOT_FOUND:
        return BrokerError::absent;
    case AMQP_PRECONDITION_FAILED:
    case AMQP_CONTENT_TOO_LARGE:
        return BrokerError::unacceptable;
    default:
        return BrokerError::lost;
    }
}

amqp_table_entry_t flag_entry(const char *name) {
    amqp_table_entry_t entry{};
    entry.key = amqp_cstring_bytes(name);
    entry.value.kind = AMQP_FIELD_KIND_BOOLEAN;
    entry.value.value.boolean = 1;
    return entry;
}

} // namespace

Rabbit::Rabbit(const BrokerConfig &broker, unsigned attempt) : state_(nullptr) {
    const Credentials credentials = load_credentials(broker);
    const Address &address = broker.addresses[attempt % broker.addresses.size()];
    where_ = address.host + ":" + std::to_string(address.port);
    state_ = amqp_new_connection();
    if (!state_) throw BrokerError(BrokerError::lost, "no memory for a connection");
    try {
        open_socket(broker, address);
        log_in(broker, credentials);
        open_channel();
    } catch (...) {
        amqp_destroy_connection(state_);
        throw;
    }
    usable_ = true;
}

Rabbit::~Rabbit() {
    if (usable_) {
        amqp_set_rpc_timeout(state_, LibraryTime(kGoodbyeMillis).get());
        amqp_connection_close(state_, AMQP_REPLY_SUCCESS);
    }
    amqp_destroy_connection(state_);
}

void Rabbit::open_socket(const BrokerConfig &broker, const Address &address) {
    amqp_socket_t *socket = broker.tls ? amqp_ssl_socket_new(state_) : amqp_tcp_socket_new(state_);
    if (!socket) throw BrokerError(BrokerError::lost, "no memory for a socket");
    if (broker.tls) {
        const char *ca =
            broker.ca.empty() ? "/etc/ssl/certs/ca-certificates.crt" : broker.ca.c_str();
        expect(amqp_ssl_socket_set_cacert(socket, ca), ca);
        if (!broker.key.empty())
            expect(amqp_ssl_socket_set_key(socket, broker.certificate.c_str(), broker.key.c_str()),
                   broker.key.c_str());
        amqp_ssl_socket_set_verify_peer(socket, 1);
        amqp_ssl_socket_set_verify_hostname(socket, 1);
        amqp_ssl_socket_set_ssl_versions(socket, AMQP_TLSv1_2, AMQP_TLSvLATEST);
    }
    const LibraryTime limit(kOpenMillis), answer(kAnswerMillis);
    const int opened =
        amqp_socket_open_noblock(socket, address.host.c_str(), address.port, limit.get());
    if (opened == AMQP_STATUS_SOCKET_ERROR)
        expect(opened, "connect: nobody listens there, or there is no way to it");
    expect(opened, "connect");
    amqp_set_handshake_timeout(state_, limit.get());
    amqp_set_rpc_timeout(state_, answer.get());
    // A send to a machine that has gone would wait for minutes, whatever the heartbeat.
    const unsigned unsent = kUnsentMillis;
    setsockopt(amqp_get_sockfd(state_), IPPROTO_TCP, TCP_USER_TIMEOUT, &unsent, sizeof unsent);
}

void Rabbit::log_in(const BrokerConfig &broker, const Credentials &credentials) {
    amqp_table_entry_t abilities[] = {flag_entry("connection.blocked"),
                                      flag_entry("consumer_cancel_notify"),
                                      flag_entry("publisher_confirms"), flag_entry("basic.nack"),
                                      flag_entry("authentication_failure_close")};
    amqp_table_entry_t entries[2]{};
    entries[0].key = amqp_cstring_bytes("capabilities");
    entries[0].value.kind = AMQP_FIELD_KIND_TABLE;
    entries[0].value.value.table = {static_cast<int>(std::size(abilities)), abilities};
    entries[1].key = amqp_cstring_bytes("connection_name");
    entries[1].value.kind = AMQP_FIELD_KIND_UTF8;
    entries[1].value.value.bytes = amqp_cstring_bytes("halvo-relay");
    const amqp_table_t properties{2, entries};
    expect(amqp_login_with_properties(state_, broker.virtual_host.c_str(), 0, kFrameBytes,
                                      broker.heartbeat, &properties, AMQP_SASL_METHOD_PLAIN,
                                      credentials.user.c_str(), credentials.password.c_str()),
           "log in");
}

void Rabbit::open_channel() {
    amqp_channel_open(state_, kChannel);
    expect_reply("open a channel");
}

void Rabbit::expect_reply(const char *what) { expect(amqp_get_rpc_reply(state_), what); }

void Rabbit::expect(int status, const char *what) {
    if (status == AMQP_STATUS_OK) return;
    usable_ = false;
    throw BrokerError(BrokerError::lost, where_ + ": " + what + ": " + amqp_error_string2(status));
}

void Rabbit::expect(const amqp_rpc_reply_t &reply, const char *what) {
    if (reply.reply_type == AMQP_RESPONSE_NORMAL) return;
    if (reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION) closed(reply.reply, what);
    expect(reply.library_error ? reply.library_error : AMQP_STATUS_SOCKET_CLOSED, what);
}

// The broker has closed the channel or the connection and says why.
void Rabbit::closed(const amqp_method_t &method, const std::string &what) {
    int code = 0;
    std::string text = "closed by the broker";
    if (method.id == AMQP_CHANNEL_CLOSE_METHOD) {
        const auto *close = static_cast<const amqp_channel_close_t *>(method.decoded);
        code = close->reply_code;
        text = text_of(close->reply_text);
        amqp_channel_close_ok_t ok{};
        amqp_send_method(state_, kChannel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
    } else if (method.id == AMQP_CONNECTION_CLOSE_METHOD) {
        const auto *close = static_cast<const amqp_connection_close_t *>(method.decoded);
        code = close->reply_code;
        text = text_of(close->reply_text);
        amqp_connection_close_ok_t ok{};
        amqp_send_method(state_, 0, AMQP_CONNECTION_CLOSE_OK_METHOD, &ok);
        usable_ = false;
    }
    throw BrokerError(kind_of(code), where_ + ": " + what + ": " + text);
}

bool Rabbit::wait_frame(amqp_frame_t &frame, int milliseconds) {
    const LibraryTime limit(milliseconds);
    const int status = amqp_simple_wait_frame_noblock(state_, &frame, limit.get());
    if (status == AMQP_STATUS_TIMEOUT) return false;
    expect(status, "receive");
    return true;
}

void Rabbit::handle(const amqp_frame_t &frame) {
    if (frame.frame_type != AMQP_FRAME_METHOD) return;
    const amqp_method_t &method = frame.payload.method;
    switch (method.id) {
    case AMQP_CONNECTION_BLOCKED_METHOD:
        blocked_ = true;
        break;
    case AMQP_CONNECTION_UNBLOCKED_METHOD:
        blocked_ = false;
        break;
    case AMQP_CHANNEL_CLOSE_METHOD:
    case AMQP_CONNECTION_CLOSE_METHOD:
        closed(method, "the channel");
        break;
    case AMQP_BASIC_CANCEL_METHOD:
        throw BrokerError(BrokerError::absent, where_ + ": the broker has ended the delivery: its "
                                                        "queue is gone or has no leader");
    default:
        break;
    }
}

} // namespace halvo::relay
