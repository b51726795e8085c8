// A route in: fetches messages, writes those that have not come before as one batch, and acknowledges
// them once they are readable.
//
//   fetch --> mark each new one --> list what is marked --> commit --> remember --> acknowledge
//
// A death behind any of the arrows loses nothing: what is not acknowledged comes again, and the list
// with the position of the end tells what is in already.
#include <algorithm>
#include <cinttypes>
#include <ctime>

#include "tools/relay/base/log.h"
#include "tools/relay/route/dead_letters.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

namespace {

constexpr int64_t kLookMilliseconds = 5000; // between looks at the broker's queues

class Carrier {
public:
    explicit Carrier(RouteContext &context)
        : context_(context), route_(context.route), figures_(context.figures()),
          sink_(open_sink(route_.to, route_.type, context.state.arriving())),
          windows_(context.state.windows()), pace_(route_.rate_limit) {
        settle();
    }
    void run();

private:
    void settle();
    void connect();
    void carry();
    void look();
    bool is_repeat(const Identity &identity, uint32_t marked) const;
    uint32_t mark_all(uint32_t most);
    bool set_aside(const Incoming &message);
    void commit(uint32_t marked);
    void remember(uint32_t count);

    RouteContext &context_;
    const RouteConfig &route_;
    Figures &figures_;
    const std::unique_ptr<Sink> sink_;
    Windows windows_;
    Pace pace_;
    std::unique_ptr<Consumer> consumer_;
    std::vector<Incoming> fetched_; // and not dealt with
    size_t done_ = 0;               // of them, in this batch
    uint64_t last_tag_ = 0;         // of those, to be acknowledged; 0: none
    int64_t next_look_ = 0;
};

// Finishes what a dead relay began.
void Carrier::settle() {
    Arriving &arriving = context_.state.arriving();
    const uint32_t listed = arriving.count;
    if (listed == 0) return;
    const std::optional<uint32_t> committed = sink_->committed_since(arriving);
    if (committed)
        log(Level::info, route_.name, "recovered",
            std::to_string(*committed) + " of " + std::to_string(listed) +
                " messages were written before the last end");
    else
        log(Level::warning, route_.name, "another-writer",
            text_of(route_.to) + " is not as it was left; up to " + std::to_string(listed) +
                " messages may arrive twice");
    remember(committed.value_or(0));
    arriving.count = 0;
}

void Carrier::remember(uint32_t count) {
    const Arriving &arriving = context_.state.arriving();
    for (uint32_t i = 0; i < count; ++i) {
        const Identity &identity = arriving.list[i];
        if (identity.source != 0)
            figures_.missing += windows_.add(identity.source, identity.number);
    }
}

void Carrier::connect() {
    context_.enter(Phase::connecting);
    fetched_.clear(); // they come again
    consumer_ =
        connect_consumer(context_.broker, context_.attempt, route_.queues(), route_.prefetch);
    ++figures_.connections;
    context_.enter(Phase::running);
    log(Level::info, route_.name, "connected", text_of(route_.from) + " to " + text_of(route_.to));
}

void Carrier::look() {
    const int64_t now = milliseconds_now();
    if (now < next_look_) return;
    next_look_ = now + kLookMilliseconds;
    figures_.lag = consumer_->waiting() + static_cast<int64_t>(fetched_.size());
}

void Carrier::run() {
    while (!context_.stop) try {
            if (!consumer_) connect();
            look();
            carry();
        } catch (const BrokerError &error) {
            sink_->drop();
            consumer_.reset();
            context_.failed(error);
        }
}

void Carrier::carry() {
    const auto batch = static_cast<size_t>(route_.batch);
    consumer_->fetch(fetched_, std::max(batch, fetched_.size()), kWaitMilliseconds);
    if (fetched_.empty()) return;
    figures_.in_flight = static_cast<int64_t>(fetched_.size());
    const uint32_t most = pace_.allow(
        std::min(static_cast<uint32_t>(std::min(batch, fetched_.size())), sink_->most()),
        context_.stop);
    if (most == 0) return;
    const uint32_t marked = mark_all(most);
    if (marked > 0) commit(marked);
    pace_.used(marked);
    if (last_tag_ != 0) consumer_->acknowledge(last_tag_);
    fetched_.erase(fetched_.begin(), fetched_.begin() + static_cast<std::ptrdiff_t>(done_));
    figures_.in_flight = static_cast<int64_t>(fetched_.size());
    // A full channel: no acknowledgements, so that the broker keeps the others, and heartbeats go on.
    if (done_ == 0)
        consumer_->fetch(fetched_, static_cast<size_t>(route_.prefetch) * route_.queues().size(),
                         0);
    else
        context_.pauses.reset();
}

// Goes over what is fetched until there is no room. Returns how many are marked.
uint32_t Carrier::mark_all(uint32_t most) {
    Arriving &arriving = context_.state.arriving();
    uint32_t marked = 0;
    last_tag_ = 0;
    for (done_ = 0; done_ < fetched_.size() && marked < most; ++done_) {
        const Incoming &message = fetched_[done_];
        if (message.identity.source != 0 && is_repeat(message.identity, marked)) {
            ++figures_.repeats;
        } else if (message.body.empty() || message.body.size() > sink_->longest()) {
            if (!route_.reject_poison && marked > 0) break; // what comes before it is delivered
            if (!set_aside(message)) continue;
        } else {
            if (!sink_->mark(marked, message, kWaitMilliseconds)) break;
            arriving.list[marked++] = message.identity;
        }
        last_tag_ = message.tag;
    }
    return marked;
}

bool Carrier::is_repeat(const Identity &identity, uint32_t marked) const {
    if (windows_.has(identity.source, identity.number)) return true;
    // Numbers rise as a rule: what is above the last one of its source is not in the batch.
    const Identity *list = context_.state.arriving().list;
    for (uint32_t i = marked; i > 0; --i) {
        if (list[i - 1].source != identity.source) continue;
        if (list[i - 1].number < identity.number && i == marked) return false;
        if (list[i - 1].number == identity.number) return true;
    }
    return false;
}

// A message that the local end can never take. False: it went back to the broker, and is no more to
// be acknowledged.
bool Carrier::set_aside(const Incoming &message) {
    const std::string reason = message.body.empty()
                                   ? "an empty message"
                                   : "a message of " + std::to_string(message.body.size()) +
                                         " bytes, longer than " + std::to_string(sink_->longest());
    if (!route_.reject_poison) {
        sink_->drop();
        throw RouteFailed(reason + "; it stays in the broker's queue, and the route stands still");
    }
    ++figures_.dead_letters;
    if (!route_.dead_letter_queue.empty()) {
        consumer_->reject(message.tag);
        log(Level::error, route_.name, "dead-letter",
            reason + ", is rejected to " + route_.dead_letter_queue);
        return false;
    }
    put_aside(route_,
              {message.body.data(), static_cast<uint32_t>(message.body.size()), message.type},
              message.identity, reason);
    log(Level::error, route_.name, "dead-letter", reason + ", is in " + route_.dead_letters);
    return true;
}

void Carrier::commit(uint32_t marked) {
    Arriving &arriving = context_.state.arriving();
    sink_->describe(arriving.place);
    arriving.count.store(marked, std::memory_order_release);
    sink_->commit();
    remember(marked);
    arriving.count.store(0, std::memory_order_release);
    ++figures_.batches;
    figures_.messages += marked;
    for (size_t i = 0; i < done_; ++i) figures_.bytes += fetched_[i].body.size();
    figures_.last = static_cast<int64_t>(std::time(nullptr));
}

} // namespace

void carry_in(RouteContext &context) { Carrier(context).run(); }

} // namespace halvo::relay
