// Fetching from RabbitMQ with acknowledgements of our own.
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/relay/rabbit/rabbit.h"

namespace halvo::relay {

namespace {

class RabbitConsumer : public Consumer {
public:
    RabbitConsumer(const BrokerConfig &broker, unsigned attempt,
                   const std::vector<std::string> &queues, int prefetch)
        : rabbit_(broker, attempt), queues_(queues) {
        // For each consumer: a queue that stands still does not keep the others from going on.
        amqp_basic_qos(rabbit_.state(), kChannel, 0, static_cast<uint16_t>(prefetch), 0);
        rabbit_.expect_reply("set the prefetch");
        for (const std::string &queue : queues_) {
            amqp_basic_consume(rabbit_.state(), kChannel, bytes_of(queue), amqp_empty_bytes, 0, 0,
                               0, amqp_empty_table);
            rabbit_.expect_reply(("consume from " + queue).c_str());
        }
    }

    void fetch(std::vector<Incoming> &into, size_t most, int milliseconds) override;
    void acknowledge(uint64_t tag) override {
        rabbit_.expect(amqp_basic_ack(rabbit_.state(), kChannel, tag, 1), "acknowledge");
    }
    void reject(uint64_t tag) override {
        rabbit_.expect(amqp_basic_reject(rabbit_.state(), kChannel, tag, 0), "reject");
    }
    int64_t waiting() override;

private:
    Rabbit rabbit_;
    std::vector<std::string> queues_;
};

// "SOURCE:NUMBER", as the publisher writes it.
Identity identity_of(const std::string &text) {
    char *end = nullptr;
    errno = 0;
    const uint64_t source = std::strtoull(text.c_str(), &end, 16);
    if (end != text.c_str() + 16 || *end != ':') return {};
    const char *digits = end + 1;
    const uint64_t number = std::strtoull(digits, &end, 10);
    if (end == digits || *end || errno) return {};
    return {source, number};
}

int type_of(const std::string &text) {
    if (text.empty() || text.size() > 5) return -1;
    char *end = nullptr;
    const long type = std::strtol(text.c_str(), &end, 10);
    return *end == '\0' && type >= 0 && type <= 65535 ? static_cast<int>(type) : -1;
}

Incoming incoming_of(const amqp_envelope_t &envelope) {
    Incoming incoming;
    incoming.tag = envelope.delivery_tag;
    incoming.body = text_of(envelope.message.body);
    const amqp_basic_properties_t &properties = envelope.message.properties;
    if (properties._flags & AMQP_BASIC_TYPE_FLAG) incoming.type = type_of(text_of(properties.type));
    if (properties._flags & AMQP_BASIC_APP_ID_FLAG &&
        properties._flags & AMQP_BASIC_MESSAGE_ID_FLAG &&
        text_of(properties.app_id) == "halvo-relay")
        incoming.identity = identity_of(text_of(properties.message_id));
    return incoming;
}

void RabbitConsumer::fetch(std::vector<Incoming> &into, size_t most, int milliseconds) {
    amqp_maybe_release_buffers(rabbit_.state());
    while (into.size() < most) {
        const LibraryTime limit(milliseconds);
        amqp_envelope_t envelope;
        const amqp_rpc_reply_t reply =
            amqp_consume_message(rabbit_.state(), &envelope, limit.get(), 0);
        if (reply.reply_type == AMQP_RESPONSE_NORMAL) {
            into.push_back(incoming_of(envelope));
            amqp_destroy_envelope(&envelope);
            milliseconds = 0;
            continue;
        }
        const bool by_library = reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION;
        if (by_library && reply.library_error == AMQP_STATUS_TIMEOUT) return;
        if (!by_library || reply.library_error != AMQP_STATUS_UNEXPECTED_STATE)
            rabbit_.expect(reply, "fetch");
        amqp_frame_t frame; // it is there: not a delivery
        if (rabbit_.wait_frame(frame, 0)) rabbit_.handle(frame);
    }
}

int64_t RabbitConsumer::waiting() {
    int64_t count = 0;
    for (const std::string &queue : queues_) {
        const amqp_queue_declare_ok_t *found = amqp_queue_declare(
            rabbit_.state(), kChannel, bytes_of(queue), 1, 0, 0, 0, amqp_empty_table);
        rabbit_.expect_reply("look at the queue");
        count += found->message_count;
    }
    return count;
}

} // namespace

std::unique_ptr<Consumer> connect_consumer(const BrokerConfig &broker, unsigned attempt,
                                           const std::vector<std::string> &queues, int prefetch) {
    return std::make_unique<RabbitConsumer>(broker, attempt, queues, prefetch);
}

} // namespace halvo::relay
