// A route out: marks messages, publishes them, releases those that the broker has confirmed.
//
//   take --> number, store --> publish --> answers --> release the confirmed prefix
//     ^                                                   | nack, return, no answer, lost connection
//     +----------- growing pause <--- give back <---------+
//
// Behind a failure the messages go one at a time at first: a message that the broker will never take
// is found so, and one that must wait is not sent over and over with all that follow it.
#include <ctime>

#include "tools/relay/base/log.h"
#include "tools/relay/route/dead_letters.h"
#include "tools/relay/route/numbering.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

namespace {

class Carrier {
public:
    explicit Carrier(RouteContext &context)
        : context_(context), route_(context.route), figures_(context.figures()),
          queues_(route_.queues()), source_(open_source(route_.from, route_.type)),
          numbering_(route_, context.state, *source_), pace_(route_.rate_limit),
          limit_(static_cast<uint32_t>(route_.batch)) {}

    void run();

private:
    void connect();
    void look();
    void carry();
    uint32_t take(uint32_t most);
    uint32_t acceptable(uint32_t count);
    void carry_batch(uint32_t count);
    void find_unacceptable(uint32_t count, const BrokerError &error);
    void send(uint32_t count);
    uint32_t deal_with(const std::vector<Verdict> &verdicts);
    bool deal_with_failure(uint32_t index, Verdict verdict);
    void give_up_message(uint32_t index, const std::string &reason);
    void release(uint32_t count);

    RouteContext &context_;
    const RouteConfig &route_;
    Figures &figures_;
    const std::vector<std::string> queues_;
    const std::unique_ptr<Source> source_;
    Numbering numbering_;
    Pace pace_;
    std::unique_ptr<Publisher> publisher_;
    uint32_t limit_;                // messages in the next batch; grows after successes
    std::vector<uint32_t> lengths_; // of the batch
    int64_t next_look_ = 0;
    bool told_blocked_ = false;
    bool idle_ = true; // no message came
};

void Carrier::connect() {
    context_.enter(Phase::connecting);
    publisher_ = connect_publisher(context_.broker, context_.attempt);
    idle_ = true;
    ++figures_.connections;
    log(Level::info, route_.name, "connected", text_of(route_.from) + " to " + text_of(route_.to));
}

// The answers to a batch show what the broker has to say; without batches somebody must look.
void Carrier::look() {
    const int64_t now = milliseconds_now();
    if (now < next_look_ && !idle_ && !told_blocked_) return;
    publisher_->serve();
    if (publisher_->blocked() != told_blocked_) {
        told_blocked_ = publisher_->blocked();
        log(told_blocked_ ? Level::warning : Level::info, route_.name,
            told_blocked_ ? "blocked" : "unblocked",
            told_blocked_ ? "the broker takes nothing: an alarm of its memory or disk"
                          : "the broker takes messages again");
    }
    context_.enter(told_blocked_ ? Phase::blocked : Phase::running);
    if (now < next_look_) return;
    next_look_ = now + 1000;
    figures_.lag = source_->waiting();
}

void Carrier::run() {
    while (!context_.stop) try {
            if (!publisher_) connect();
            look();
            carry();
        } catch (const BrokerError &error) {
            publisher_.reset();
            release(0);
            limit_ = 1;
            context_.failed(error);
        }
}

void Carrier::carry() {
    if (told_blocked_) return sleep_until(milliseconds_now() + 50, context_.stop);
    const uint32_t allowed = pace_.allow(limit_, context_.stop);
    const uint32_t count = allowed == 0 ? 0 : take(allowed);
    idle_ = count == 0;
    if (idle_) return;
    pace_.used(count);
    carry_batch(count);
}

// Only what is to be released together: a file queue consumes all that was taken or nothing.
uint32_t Carrier::take(uint32_t most) {
    uint32_t count = source_->take(most, kWaitMilliseconds);
    for (uint32_t fit; (fit = acceptable(count)) < count;) {
        source_->give_back();
        count = source_->take(fit, 0);
    }
    return count;
}

// The messages before the first one that is longer than the route lets through; that one alone.
uint32_t Carrier::acceptable(uint32_t count) {
    if (route_.most_bytes == 0) return count;
    for (uint32_t i = 0; i < count; ++i)
        if (source_->message(i).length > route_.most_bytes) return std::max(i, 1U);
    return count;
}

// Each message is done, or the batch is given back from the first that is not.
void Carrier::carry_batch(uint32_t count) {
    numbering_.plan(count);
    figures_.in_flight = count;
    ++figures_.batches;
    try {
        send(count);
        const std::vector<Verdict> verdicts = publisher_->answers(
            context_.broker.confirm_timeout * 1000, kDrainMilliseconds, context_.stop);
        const uint32_t done = deal_with(verdicts);
        release(done);
        if (done == count) {
            context_.pauses.reset();
            limit_ = std::min(limit_ * 2, static_cast<uint32_t>(route_.batch));
            return;
        }
        limit_ = 1;
        if (verdicts[done] == Verdict::open) throw publisher_->why_open();
        sleep_until(milliseconds_now() + context_.pauses.next(), context_.stop);
    } catch (const BrokerError &error) {
        if (error.kind() != BrokerError::unacceptable) throw;
        find_unacceptable(count, error);
    }
}

// The broker closes the channel at a message that it will never take, without saying which.
void Carrier::find_unacceptable(uint32_t count, const BrokerError &error) {
    if (count > 1) {
        log(Level::warning, route_.name, "unacceptable",
            std::string(error.what()) + "; looking for the message");
        release(0);
        limit_ = 1;
    } else {
        give_up_message(0, error.what());
        release(1);
    }
    connect();
}

void Carrier::send(uint32_t count) {
    lengths_.clear();
    for (uint32_t i = 0; i < count; ++i) {
        const Message message = source_->message(i);
        lengths_.push_back(message.length);
        if (route_.most_bytes != 0 && message.length > route_.most_bytes)
            throw BrokerError(BrokerError::unacceptable,
                              "longer than max_bytes: " + std::to_string(message.length));
        if (numbering_.is_repeat(i)) ++figures_.repeats;
        publisher_->send(queues_[numbering_.shard(i)],
                         {{message.data, message.length}, message.type, numbering_.identity(i)});
    }
}

// How many from the first on are done.
uint32_t Carrier::deal_with(const std::vector<Verdict> &verdicts) {
    for (uint32_t i = 0; i < verdicts.size(); ++i) {
        if (verdicts[i] == Verdict::confirmed) continue;
        if (!deal_with_failure(i, verdicts[i])) return i;
    }
    return static_cast<uint32_t>(verdicts.size());
}

// True when the message is done with all the same.
bool Carrier::deal_with_failure(uint32_t index, Verdict verdict) {
    switch (verdict) {
    case Verdict::returned:
        ++figures_.returned;
        if (!route_.wait_for_route) {
            give_up_message(index, "unroutable: " + publisher_->return_reason());
            return true;
        }
        log(Level::warning, route_.name, "unroutable",
            publisher_->return_reason() + "; the message waits");
        return false;
    case Verdict::refused:
        ++figures_.refused;
        log(Level::warning, route_.name, "nack", "the broker did not keep a message");
        return false;
    default:
        return false;
    }
}

void Carrier::give_up_message(uint32_t index, const std::string &reason) {
    const Identity identity = numbering_.identity(index);
    put_aside(route_, source_->message(index), identity, reason);
    ++figures_.dead_letters;
    log(Level::error, route_.name, "dead-letter",
        "number " + std::to_string(identity.number) + " is in " + route_.dead_letters + ": " +
            reason);
}

// The first messages of the batch are consumed, the others given back.
void Carrier::release(uint32_t count) {
    numbering_.before_release(count);
    source_->release(count);
    numbering_.released(count);
    for (uint32_t i = 0; i < count; ++i) figures_.bytes += lengths_[i];
    figures_.messages += count;
    figures_.in_flight = 0;
    if (count > 0) figures_.last = static_cast<int64_t>(std::time(nullptr));
}

} // namespace

void carry_out(RouteContext &context) { Carrier(context).run(); }

} // namespace halvo::relay
