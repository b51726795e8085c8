// smsqm_print: the text of the message that left the gateway last.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "print/cells.h"

char qm_out_prefixes[HALVO_OUT_PREFIXES][3] = {"MT"};
halvo_channel *q_last;

namespace halvo {

namespace {

constexpr int kTextAt = 306; // where the applications put the text
constexpr int kTextSize = HALVO_LAST_MESSAGE_SIZE - 1;
constexpr size_t kBodySize = kTextAt + kTextSize;

bool is_outbound(const halvo_channel &q) {
    for (const auto &prefix : qm_out_prefixes)
        if (prefix[0] && prefix[0] == q.qname[0] && prefix[1] == q.qname[1]) return true;
    return false;
}

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// The cleaned text of the last message.
class LastMessage {
public:
    LastMessage() noexcept : q_(qm_last_out_q(attached_segment())) {
        const qmsg *slot = qm_last_msg_of(q_);
        if (!slot) return;
        std::memcpy(body_, body(slot), readable_bytes(slot));
        qm_rtrim2(body_ + kTextAt, kTextSize - 1);
        qm_span(body_ + kTextAt, kTextSize);
    }
    halvo_channel *channel() const noexcept { return q_; }
    const char *text() const noexcept { return body_ + kTextAt; }

private:
    // A slot may be smaller than what is shown, and the segment may end behind it.
    size_t readable_bytes(const qmsg *slot) const noexcept {
        const auto offset = static_cast<size_t>(static_cast<const char *>(body(slot)) -
                                                reinterpret_cast<const char *>(q_));
        const uint32_t size = load(q_->qbsz);
        if (size <= offsetof(qmsg, data)) return 0;
        return std::min({kBodySize, size - offsetof(qmsg, data), room_behind(q_) - offset});
    }

    halvo_channel *q_;
    char body_[kBodySize + 1] = {};
};

} // namespace

} // namespace halvo

using namespace halvo;

halvo_channel *qm_last_out_q(halvo_segment *segment) noexcept {
    q_last = nullptr;
    if (!segment || segment != attached_segment()) return nullptr;
    const auto channels = static_cast<uint32_t>(channel_count(segment));
    uint32_t at = channels * static_cast<uint32_t>(std::rand()) / 12;
    if (at >= channels) at = 0;
    for (uint32_t visited = 0; visited < channels; ++visited, at = (at + 1) % channels) {
        halvo_channel *q = checked_channel(static_cast<int>(at));
        if (!q || !is_outbound(*q)) continue;
        if (!q_last || load(q->lastout) > load(q_last->lastout)) q_last = q;
    }
    return q_last;
}

qmsg *qm_last_msg_of(halvo_channel *channel) noexcept {
    if (!channel) return nullptr;
    const Ring ring = ring_of(channel);
    if (!lies_within(ring, room_behind(channel))) return nullptr;
    const uint32_t rpos = position_in(ring, load(channel->rpos));
    // Before the first slot lies the last one; so it does for a damaged position inside the first.
    const uint32_t behind = rpos - ring.start < ring.size ? ring.end : rpos;
    return slot_at(channel, behind - ring.size);
}

int qm_print_last_msg2(char mode) noexcept {
    const CancellationOff whole_call;
    const LastMessage last;
    if (!last.channel()) return -1;
    char name[HALVO_NAME_SIZE + 1] = {};
    std::memcpy(name, last.channel()->qname, HALVO_NAME_SIZE);
    if (mode != 'w') std::printf("%c[2K", 27);
    std::printf("최종발송 %15s ", name);
    q_print_elapsed(load(last.channel()->lastin));
    std::printf(" ");
    print_attributes(qoptMsg); // Kept: in mode 'w' too
    std::printf("%s", last.text());
    if (mode != 'w') print_attribute(0);
    std::printf("\n");
    return 0;
}

int qm_print_last_msg() noexcept { return qm_print_last_msg2('f'); }

halvo_channel *qm_sprint_last_msg(char *dst) noexcept {
    const LastMessage last;
    if (last.channel() && dst) std::strcpy(dst, last.text());
    return last.channel();
}

int qm_rtrim2(char *s, int n) noexcept {
    if (!s) return 0;
    // Kept: index 0 is never examined.
    for (; n >= 1 && is_space(s[n]); --n) s[n] = '\0';
    return n;
}

int qm_rtrim(char *s, int n) noexcept {
    if (!s) return 0;
    const int stop = qm_rtrim2(s, n);
    if (stop >= 1 && s[stop] == '$') s[stop] = '\0';
    for (char *at = s; (at = std::strstr(at, "\\n")) != nullptr; ++at) {
        *at = '\n';
        std::memmove(at + 1, at + 2, std::strlen(at + 2) + 1);
    }
    return stop;
}

int qm_span(char *s, int n) noexcept {
    for (int i = 0; s && i < n && s[i] != '\0'; ++i)
        if (s[i] == '\r' || s[i] == '\n') s[i] = ' ';
    return 0;
}
