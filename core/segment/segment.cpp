// sms_shm: the attached segment, and the small lookups that programs use.
#include "core/segment/segment.h"

#include <cstring>

namespace halvo {

halvo_segment *attached = nullptr;
halvo_segment *segment_ever = nullptr;
size_t segment_size = 0;
int attached_id = -1;
int first_channels = 0;
std::atomic<bool> is_view{false};

} // namespace halvo

using namespace halvo;

halvo_segment *q_0() noexcept { return segment_ever; }

halvo_channel *q_chnnl2q(int channel) noexcept {
    if (!segment_ever) return nullptr;
    return reinterpret_cast<halvo_channel *>(reinterpret_cast<char *>(segment_ever) +
                                             segment_ever->qoffs[channel]);
}

int q_name2chnnl(const char *name) noexcept {
    if (!attached || !name) return -1;
    // A name that fills its field has no terminator: the field's length is its end.
    if (std::strlen(name) > HALVO_NAME_SIZE) return -1;
    const int channels = channel_count(attached);
    for (int channel = 0; channel < channels; ++channel) {
        const halvo_channel *q = checked_channel(channel);
        if (q && std::strncmp(q->qname, name, HALVO_NAME_SIZE) == 0) return channel;
    }
    return -1;
}

char q_statchr(const qmsg *slot) noexcept {
    switch (load_state(slot)) {
    case HALVO_SLOT_FREE:
        return '_';
    case HALVO_SLOT_READABLE:
        return 'F';
    case HALVO_SLOT_MARKED:
        return 'R';
    case HALVO_SLOT_PENDING:
        return 'W';
    default:
        return 'X';
    }
}
