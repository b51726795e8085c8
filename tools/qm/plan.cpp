#include "tools/qm/plan.h"

#include <algorithm>
#include <set>

#include "halvo/segment.h"
#include "tools/frame/text.h"

namespace halvo::qm {

using namespace tools;

namespace {

// Channels start on cache lines, so that two of them never share one; rows of slots on words, so that
// slots whose size is a multiple of four have no state in two cache lines.
constexpr uint64_t kCacheLine = 64, kWord = 4;
constexpr uint64_t kSegmentMax = UINT32_MAX; // offsets are 32 bits wide

constexpr uint64_t rounded_up(uint64_t size, uint64_t unit = kCacheLine) {
    return (size + unit - 1) / unit * unit;
}

std::string fault_of_name(const std::string &name) {
    if (name.empty()) return "the name is empty";
    if (name.size() >= HALVO_NAME_SIZE)
        return text("the name has %zu bytes; at most %d fit", name.size(), HALVO_NAME_SIZE - 1);
    const auto control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(name.begin(), name.end(), control)) return "the name has a control character";
    return {};
}

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

Fault fault_of_channel(const ChannelPlan &channel, size_t number) {
    const auto fault = [number](const char *field, std::string reason) {
        return Fault{item_of_channel(number, field), std::move(reason)};
    };
    if (std::string reason = fault_of_name(channel.name); !reason.empty())
        return fault("name", reason);
    if (!is_letter(channel.type)) return fault("type", "the type must be one letter");
    if (channel.slots == 0) return fault("slots", "there must be at least one slot");
    if (channel.slot_size <= sizeof(qmsg))
        return fault("slot_size", text("a slot of %u bytes holds no message: its header takes %zu",
                                       channel.slot_size, sizeof(qmsg)));
    if (channel.rate_limit < 0) return fault("rate_limit", "the rate limit is negative");
    return {};
}

// The quotient comes first: the layout of a ring beyond it could pass 64 bits.
bool fits(const ChannelPlan &channel, uint64_t room) {
    return channel.slots <= room / channel.slot_size && layout_of(channel).size <= room;
}

Fault fault_of_channels(const std::vector<ChannelPlan> &channels) {
    if (channels.empty()) return {"segment", "there is no channel"};
    std::set<std::string> names;
    uint64_t end = first_channel_offset();
    for (size_t i = 0; i < channels.size(); ++i) {
        const ChannelPlan &channel = channels[i];
        if (i == HALVO_CHANNELS_MAX)
            return {item_of_channel(i),
                    text("there are more than %d channels", HALVO_CHANNELS_MAX)};
        if (Fault fault = fault_of_channel(channel, i); !fault.reason.empty()) return fault;
        if (!names.insert(channel.name).second)
            return {item_of_channel(i, "name"),
                    text("another channel has the name %s", channel.name.c_str())};
        if (!fits(channel, kSegmentMax - end))
            return {item_of_channel(i), "the segment would be larger than 4 GiB"};
        end += layout_of(channel).size;
    }
    return {};
}

} // namespace

std::string item_of_channel(size_t number, const char *field) {
    return field ? text("channel %zu %s", number, field) : text("channel %zu", number);
}

std::string item_of_type(int type) { return text("type %d", type); }

Fault first_fault(const SegmentPlan &plan) {
    for (const auto &[type, name] : plan.type_names) {
        if (type < 1 || type >= HALVO_TYPES)
            return {item_of_type(type), text("a type is a number from 1 to %d", HALVO_TYPES - 1)};
        if (std::string reason = fault_of_name(name); !reason.empty())
            return {item_of_type(type), reason};
    }
    return fault_of_channels(plan.channels);
}

std::string fault_of(const SegmentPlan &plan) {
    const Fault fault = first_fault(plan);
    return fault.reason.empty() ? std::string() : fault.item + ": " + fault.reason;
}

ChannelLayout layout_of(const ChannelPlan &channel) {
    const uint64_t slot = channel.slot_size;
    ChannelLayout at{};
    at.rbufs = rounded_up(sizeof(halvo_channel));
    at.wbufs = rounded_up(at.rbufs + HALVO_BUFFERS * slot, kWord);
    at.qstart = rounded_up(at.wbufs + HALVO_BUFFERS * slot, kWord);
    at.qend = at.qstart + channel.slots * slot;
    at.size = rounded_up(at.qend);
    return at;
}

uint64_t first_channel_offset() { return rounded_up(sizeof(halvo_segment)); }

} // namespace halvo::qm
