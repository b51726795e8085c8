// Looking at RabbitMQ's queues, and declaring them.

#include "tools/relay/rabbit/rabbit.h"

namespace halvo::relay {

namespace {

class RabbitAdministrator : public Administrator {
public:
    RabbitAdministrator(const BrokerConfig &broker, unsigned attempt) : rabbit_(broker, attempt) {}

    int64_t depth(const std::string &queue) override;
    void declare(const QueuePlan &plan) override;
    void try_to_publish() override;
    void try_to_read(const std::string &queue) override;

private:
    // Runs a call that the broker may answer by closing the channel, which is opened anew then.
    template <class Call>
    void attempt(const char *what, Call call) {
        try {
            call();
            rabbit_.expect_reply(what);
        } catch (const BrokerError &error) {
            if (error.kind() != BrokerError::lost) rabbit_.open_channel();
            throw;
        }
    }
    Rabbit rabbit_;
};

int64_t RabbitAdministrator::depth(const std::string &queue) {
    const amqp_queue_declare_ok_t *found = nullptr;
    try {
        attempt("look at the queue", [&] {
            found = amqp_queue_declare(rabbit_.state(), kChannel, bytes_of(queue), 1, 0, 0, 0,
                                       amqp_empty_table);
        });
    } catch (const BrokerError &error) {
        if (error.kind() == BrokerError::absent) return -1;
        throw;
    }
    return found->message_count;
}

void RabbitAdministrator::declare(const QueuePlan &plan) {
    std::vector<amqp_table_entry_t> entries;
    const auto add = [&](const char *name) -> amqp_field_value_t & {
        amqp_table_entry_t entry{};
        entry.key = amqp_cstring_bytes(name);
        entries.push_back(entry);
        return entries.back().value;
    };
    const auto add_text = [&](const char *name, const std::string &text) {
        amqp_field_value_t &value = add(name);
        value.kind = AMQP_FIELD_KIND_UTF8;
        value.value.bytes = bytes_of(text);
    };
    const std::string type = plan.classic ? "classic" : "quorum", none;
    add_text("x-queue-type", type);
    if (plan.single_active) {
        amqp_field_value_t &value = add("x-single-active-consumer");
        value.kind = AMQP_FIELD_KIND_BOOLEAN;
        value.value.boolean = 1;
    }
    if (!plan.dead_letter_queue.empty()) {
        add_text("x-dead-letter-exchange", none); // the default one, which knows queues by name
        add_text("x-dead-letter-routing-key", plan.dead_letter_queue);
    }
    const amqp_table_t arguments{static_cast<int>(entries.size()), entries.data()};
    attempt("declare the queue", [&] {
        amqp_queue_declare(rabbit_.state(), kChannel, bytes_of(plan.name), 0, 1, 0, 0, arguments);
    });
}

// The right to write is looked at when a message comes, so one has to be sent: to a queue that is not
// there. The answer to the call behind it comes after a refusal.
void RabbitAdministrator::try_to_publish() {
    attempt("publish", [&] {
        rabbit_.expect(amqp_basic_publish(rabbit_.state(), kChannel, amqp_empty_bytes,
                                          amqp_cstring_bytes("halvo-relay.nowhere"), 0, 0, nullptr,
                                          amqp_cstring_bytes("?")),
                       "publish");
        amqp_basic_qos(rabbit_.state(), kChannel, 0, 1, 0);
    });
}

void RabbitAdministrator::try_to_read(const std::string &queue) {
    amqp_rpc_reply_t reply = amqp_basic_get(rabbit_.state(), kChannel, bytes_of(queue), 0);
    try {
        rabbit_.expect(reply, "read");
    } catch (const BrokerError &error) {
        if (error.kind() != BrokerError::lost) rabbit_.open_channel();
        // A queue with a single active consumer says so to those who have the right.
        if (std::string(error.what()).find("RESOURCE_LOCKED") == std::string::npos) throw;
    }
}

} // namespace

std::unique_ptr<Administrator> connect_administrator(const BrokerConfig &broker, unsigned attempt) {
    return std::make_unique<RabbitAdministrator>(broker, attempt);
}

} // namespace halvo::relay
