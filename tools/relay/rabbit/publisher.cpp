// Publishing to RabbitMQ with confirms, which librabbitmq knows as frames only.

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/relay/rabbit/rabbit.h"

namespace halvo::relay {

namespace {

// So many messages may go out before the broker's answers are looked at: while it waits to send them,
// it reads nothing.
constexpr size_t kSentUnseen = 64;

class RabbitPublisher : public Publisher {
public:
    RabbitPublisher(const BrokerConfig &broker, unsigned attempt) : rabbit_(broker, attempt) {
        amqp_confirm_select(rabbit_.state(), kChannel);
        rabbit_.expect_reply("ask for confirms");
    }

    void send(const std::string &queue, const Outgoing &message) override;
    std::vector<Verdict> answers(int milliseconds, int drain, const Stop &stop) override;
    bool blocked() const override { return rabbit_.blocked(); }
    std::string return_reason() const override { return reason_; }
    BrokerError why_open() const override { return why_open_; }
    void serve() override { take_frames(0); }

private:
    void take_frames(int milliseconds);
    void take(const amqp_frame_t &frame);
    void settle(uint64_t tag, bool multiple, Verdict verdict);
    void take_back(const amqp_basic_return_t &returned);

    Rabbit rabbit_;
    std::vector<Verdict> verdicts_; // of what was sent since the last answers()
    BrokerError why_open_{BrokerError::lost, "no confirm in time"};
    std::vector<bool> answered_;     // a message that came back is, once it is confirmed too
    std::vector<std::string> names_; // their message ids
    uint64_t first_tag_ = 1;         // of the first of them; the broker counts from 1
    size_t settled_ = 0;             // all before it are
    size_t open_ = 0;
    std::string reason_;
};

std::string name_of(const Identity &identity) {
    char text[48];
    std::snprintf(text, sizeof text, "%016" PRIx64 ":%" PRIu64, identity.source, identity.number);
    return text;
}

void RabbitPublisher::send(const std::string &queue, const Outgoing &message) {
    names_.push_back(name_of(message.identity));
    verdicts_.push_back(Verdict::open);
    answered_.push_back(false);
    ++open_;
    char type[8];
    std::snprintf(type, sizeof type, "%d", message.type);
    amqp_basic_properties_t properties{};
    properties._flags = AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_MESSAGE_ID_FLAG |
                        AMQP_BASIC_TYPE_FLAG | AMQP_BASIC_APP_ID_FLAG;
    properties.delivery_mode = 2; // persistent
    properties.message_id = bytes_of(names_.back());
    properties.type = amqp_cstring_bytes(type);
    properties.app_id = amqp_cstring_bytes("halvo-relay");
    rabbit_.expect(amqp_basic_publish(rabbit_.state(), kChannel, amqp_empty_bytes, bytes_of(queue),
                                      1, 0, &properties, bytes_of(message.body)),
                   "publish");
    if (verdicts_.size() % kSentUnseen == 0) take_frames(0);
}

std::vector<Verdict> RabbitPublisher::answers(int milliseconds, int drain, const Stop &stop) {
    int64_t end = milliseconds_now() + milliseconds;
    bool stopping = false;
    while (open_ > 0) try {
            const int64_t now = milliseconds_now();
            if (!stopping && stop) {
                stopping = true;
                end = std::min(end, now + drain);
            }
            if (rabbit_.blocked() && !stopping) end = now + milliseconds;
            if (now >= end) break;
            take_frames(static_cast<int>(std::min<int64_t>(end - now, 100)));
        } catch (const BrokerError &error) {
            if (error.kind() != BrokerError::lost) throw;
            why_open_ = error; // what was confirmed before it counts
            break;
        }
    amqp_maybe_release_buffers(rabbit_.state());
    first_tag_ += verdicts_.size();
    settled_ = open_ = 0;
    names_.clear();
    answered_.clear();
    return std::move(verdicts_);
}

// All that is there; waits for the first.
void RabbitPublisher::take_frames(int milliseconds) {
    amqp_frame_t frame;
    while (rabbit_.wait_frame(frame, milliseconds)) {
        take(frame);
        milliseconds = 0;
    }
}

void RabbitPublisher::take(const amqp_frame_t &frame) {
    if (frame.frame_type != AMQP_FRAME_METHOD) return;
    const amqp_method_t &method = frame.payload.method;
    if (method.id == AMQP_BASIC_ACK_METHOD) {
        const auto *ack = static_cast<const amqp_basic_ack_t *>(method.decoded);
        settle(ack->delivery_tag, ack->multiple, Verdict::confirmed);
    } else if (method.id == AMQP_BASIC_NACK_METHOD) {
        const auto *nack = static_cast<const amqp_basic_nack_t *>(method.decoded);
        settle(nack->delivery_tag, nack->multiple, Verdict::refused);
    } else if (method.id == AMQP_BASIC_RETURN_METHOD) {
        take_back(*static_cast<const amqp_basic_return_t *>(method.decoded));
    } else {
        rabbit_.handle(frame);
    }
}

void RabbitPublisher::settle(uint64_t tag, bool multiple, Verdict verdict) {
    if (tag < first_tag_ || tag - first_tag_ >= verdicts_.size()) return; // of a batch given up
    const auto last = static_cast<size_t>(tag - first_tag_);
    for (size_t i = multiple ? settled_ : last; i <= last; ++i) {
        if (answered_[i]) continue;
        answered_[i] = true;
        --open_;
        if (verdicts_[i] == Verdict::open) verdicts_[i] = verdict;
    }
    if (multiple) settled_ = last + 1;
}

// The message follows. It comes back before it is confirmed.
void RabbitPublisher::take_back(const amqp_basic_return_t &returned) {
    reason_ = text_of(returned.reply_text) + " for \"" + text_of(returned.routing_key) + "\"";
    amqp_message_t message;
    rabbit_.expect(amqp_read_message(rabbit_.state(), kChannel, &message, 0), "receive");
    const std::string name = message.properties._flags & AMQP_BASIC_MESSAGE_ID_FLAG
                                 ? text_of(message.properties.message_id)
                                 : std::string();
    amqp_destroy_message(&message);
    const auto found = std::find(names_.begin(), names_.end(), name);
    if (found == names_.end()) return;
    verdicts_[static_cast<size_t>(found - names_.begin())] = Verdict::returned;
}

} // namespace

std::unique_ptr<Publisher> connect_publisher(const BrokerConfig &broker, unsigned attempt) {
    return std::make_unique<RabbitPublisher>(broker, attempt);
}

} // namespace halvo::relay
