// Channels as ends of a route.
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "core/segment/ring.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "tools/frame/program.h"
#include "tools/relay/base/incarnation.h"
#include "tools/relay/route/ends.h"

namespace halvo::relay {

namespace {

constexpr int kOpenMilliseconds = 1000;

// Enters this process as the heir of what was left at an end whose last holder is known. An heir
// that died with the end open wrote nothing there: what it inherited counts as its own.
void inherit(Arriving &arriving, int32_t last_holder) {
    if (last_holder != 0 && last_holder == arriving.heir) arriving.place.pid = last_holder;
    arriving.heir.store(getpid(), std::memory_order_release);
}

// An open and recovered end. Distances are those of the ring as it was then, whatever its header says
// by now.
class End {
public:
    // arriving: of the route whose heir at this end the process becomes.
    End(const std::string &channel, char side, Arriving *arriving = nullptr) : channel_(channel) {
        const int number = frx_channelByName(channel.c_str());
        if (number < 0) throw EndError("the segment has no channel " + channel);
        q_ = q_chnnl2q(number);
        const Standing before = standing(side);
        last_pid_ = side == 'w' ? q_->pidp : q_->pidg;
        if (arriving) inherit(*arriving, last_pid_);
        const int opened =
            frx_openChannel(&handle_, "halvo-relay", number, side, kOpenMilliseconds);
        if (opened != ESMS_OK)
            throw EndError("channel " + channel + ": its " + (side == 'w' ? "writer" : "reader") +
                           "'s end is held by process " + std::to_string(last_pid_));
        if (standing(side) != before) last_pid_ = 0;
        q_recover(number, side);
        ring_ = ring_of(q_);
        if (lies_within(ring_, UINT32_MAX)) return;
        frx_closeChannel(&handle_);
        throw EndError("channel " + channel + " is damaged");
    }
    ~End() { frx_closeChannel(&handle_); }
    End(const End &) = delete;
    End &operator=(const End &) = delete;

    FrxChannel *handle() { return &handle_; }
    int number() const { return handle_.channel; }
    const halvo_channel *q() const { return q_; }
    uint32_t slots() const { return capacity(ring_); }
    // Of the process that had the end before; 0 when one came and went during the opening.
    int32_t last_pid() const { return last_pid_; }

    uint32_t slot_of(uint32_t position) const {
        return (position_in(ring_, position) - ring_.start) / ring_.size;
    }
    uint32_t slots_since(uint32_t slot, uint32_t position) const {
        return (slot_of(position) + slots() - slot % slots()) % slots();
    }
    void describe(Place &place) const {
        place.incarnation = incarnation();
        place.pid = getpid();
    }
    uint64_t incarnation() const {
        if (incarnation_ == 0) incarnation_ = incarnation_of_channel(q_, number());
        return incarnation_;
    }
    void fail(int code, const char *what) const {
        throw EndError("channel " + channel_ + ": " + what + ": " + tools::result_text(code));
    }

private:
    // What a process moves that works at an end: position and count.
    using Standing = std::pair<uint32_t, uint64_t>;
    Standing standing(char side) const {
        if (side == 'w') return {q_->wpos, q_->pcnt.count};
        return {q_->rpos, q_->gcnt.count};
    }

    const std::string channel_;
    FrxChannel handle_{};
    const halvo_channel *q_;
    int32_t last_pid_;
    Ring ring_{};
    mutable uint64_t incarnation_ = 0;
};

class ChannelSource : public Source {
public:
    explicit ChannelSource(const std::string &channel) : end_(channel, 'r') {}

    uint32_t take(uint32_t most, int milliseconds) override {
        // One slot less than the ring: the distance tells how many were consumed.
        const uint32_t room = std::max(end_.slots() - 1, 1U);
        const int got =
            frx_readMark(end_.handle(), static_cast<int>(std::min(most, room)), milliseconds);
        if (got == ESMS_JAVAINTR) return 0; // asked to stop
        if (got < 0) end_.fail(got, "mark");
        return static_cast<uint32_t>(got);
    }
    Message message(uint32_t index) override {
        const qmsg *slot = nullptr;
        const int length = frx_peekMarked(end_.handle(), static_cast<int>(index), &slot);
        if (length < 0) end_.fail(length, "read what is marked");
        return {reinterpret_cast<const char *>(slot) + offsetof(qmsg, data),
                static_cast<uint32_t>(length), slot->type};
    }
    ~ChannelSource() override { frx_readRollback(end_.handle()); }
    void release(uint32_t count) override {
        // A count of 0 would release all.
        const int got = count == 0 ? 0 : frx_readCommit(end_.handle(), static_cast<int>(count));
        if (got != static_cast<int>(count)) end_.fail(got, "release");
        give_back();
    }
    void give_back() override {
        const int got = frx_readRollback(end_.handle());
        if (got < 0) end_.fail(got, "give back");
    }
    void describe(Place &place) override {
        end_.describe(place);
        place.slot = end_.slot_of(end_.q()->rpos);
        place.counted = end_.q()->gcnt.count;
    }
    int64_t waiting() override { return frx_getCount(end_.number()); }
    std::optional<uint32_t> consumed_since(const Sending &sending) override;

private:
    End end_;
};

// The distance of the slots is known but for whole rounds, and those are told by the count, which is
// one too much when the process died between the two.
std::optional<uint32_t> ChannelSource::consumed_since(const Sending &sending) {
    const uint64_t counted = end_.q()->gcnt.count - sending.place.counted;
    const uint32_t distance = end_.slots_since(sending.place.slot, end_.q()->rpos);
    if (counted < distance || counted - distance > UINT32_MAX) return std::nullopt;
    const auto rounds = static_cast<uint32_t>(counted - distance);
    if (rounds % end_.slots() > 1) return std::nullopt;
    return distance + rounds / end_.slots() * end_.slots();
}

class ChannelSink : public Sink {
public:
    ChannelSink(const std::string &channel, int default_type, Arriving &arriving)
        : end_(channel, 'w', &arriving), default_type_(default_type) {}

    ~ChannelSink() override { ChannelSink::drop(); }
    uint32_t longest() const override {
        return static_cast<uint32_t>(frx_sizeOfData(end_.number()));
    }
    // Messages that another program has parked keep their slots, and a batch must not pass over them.
    uint32_t most() const override {
        return end_.q()->pbuffs != 0 ? 1 : std::max(end_.slots() - 1, 1U);
    }
    bool mark(uint32_t index, const Incoming &message, int milliseconds) override {
        const int type = message.type >= 0 ? message.type : default_type_;
        const auto length = static_cast<uint32_t>(message.body.size());
        const int result = index == 0 ? frx_writeMark(end_.handle(), type, message.body.data(),
                                                      length, milliseconds)
                                      : frx_writeMarkAt(end_.handle(), type, message.body.data(),
                                                        length, static_cast<int>(index), -1);
        if (result == ESMS_FULL || result == ESMS_TIMEOUT || result == ESMS_JAVAINTR) return false;
        if (result != ESMS_OK) end_.fail(result, "write");
        return true;
    }
    void commit() override {
        const int result = frx_writeCommitAll(end_.handle());
        if (result != ESMS_OK) end_.fail(result, "commit");
    }
    void drop() override { frx_writeRollbackAll(end_.handle()); }
    void describe(Place &place) override {
        end_.describe(place);
        place.slot = end_.slot_of(end_.q()->wpos);
    }
    // Another writer may have put its own messages behind ours.
    std::optional<uint32_t> committed_since(const Arriving &arriving) override {
        if (arriving.place.incarnation != end_.incarnation() ||
            arriving.place.pid != end_.last_pid())
            return std::nullopt;
        const uint32_t distance = end_.slots_since(arriving.place.slot, end_.q()->wpos);
        if (distance > arriving.count) return std::nullopt;
        return distance;
    }

private:
    End end_;
    int default_type_;
};

} // namespace

std::unique_ptr<Source> open_channel_source(const std::string &channel) {
    return std::make_unique<ChannelSource>(channel);
}

std::unique_ptr<Sink> open_channel_sink(const std::string &channel, int default_type,
                                        Arriving &arriving) {
    return std::make_unique<ChannelSink>(channel, default_type, arriving);
}

} // namespace halvo::relay
