// sms_shmC: looking at a channel without changing it: slots, liveness, sizes, counts. No lock, and
// no check that the handle opened the end; only its fields are used.
#include "core/ring/end.h"
#include "core/ring/side.h"
#include "frx/ends.h"

using namespace halvo;

int frx_view(const FrxChannel *handle, void *buffer) noexcept {
    const halvo_channel *q = frx_header(handle);
    if (!q || !buffer) return ESMS_INVAL;
    return handle->side == 'w' ? q_writeview(q, buffer) : q_readview(q, buffer);
}

int frx_stat(const FrxChannel *handle) noexcept {
    const halvo_channel *q = frx_header(handle);
    if (!q) return ESMS_INVAL;
    const qmsg *slot = ring_slot(q, load(q->*side_of(handle->side).position));
    return slot ? load_state(slot) : ESMS_INVAL;
}

int frx_statBuf(const FrxChannel *handle, int index) noexcept {
    const halvo_channel *q = frx_header(handle);
    // Kept: one index more than there are buffers is accepted.
    if (!q || index < 0 || index > HALVO_BUFFERS) return ESMS_INVAL;
    const qmsg *slot = buffer_slot(q, load(q->*side_of(handle->side).buffers), index);
    return slot ? load_state(slot) : ESMS_INVAL;
}

// Kept: only an 'r' handle asks for the writer's heartbeat, and the file queue's are not looked at.
int frx_isCountpartAlive(const FrxChannel *handle, int maxAge) noexcept {
    halvo_channel *q = frx_header(handle);
    if (!q) return ESMS_INVAL;
    const Side &side = handle->side == 'r' ? kReader : kWriter;
    const auto now = static_cast<int32_t>(q_gettime());
    if (writable_segment()) refresh(q->*side.heartbeat, now);
    return age(now, load(q->*side.peer_heartbeat)) < maxAge;
}

int frx_sizeOfBlock(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q ? static_cast<int>(slot_size(q)) : ESMS_INVAL;
}

int frx_countOfBlocks(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q ? static_cast<int>(load(q->qcnt) - 2) : ESMS_INVAL;
}

int frx_sizeOfData(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q ? static_cast<int>(slot_size(q)) - static_cast<int>(sizeof(qmsg)) : ESMS_INVAL;
}

// Kept: the file queue counts on 'F' channels alone, and there the ring does not.
int64_t frx_getCount(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    if (!q) return ESMS_INVAL;
    return q->qtype == 'F' ? backlog(q->fpcnt, q->fgcnt) : backlog(q->pcnt, q->gcnt);
}

int64_t frx_gcount(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q ? static_cast<int64_t>(q->gcnt.count) : int64_t{ESMS_INVAL};
}

int64_t frx_pcount(int channel) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q ? static_cast<int64_t>(q->pcnt.count) : int64_t{ESMS_INVAL};
}

int64_t frx_pcountFor(int channel, int type) noexcept {
    const halvo_channel *q = frx_header(channel);
    return q && is_type(type) ? q_pcount_per_type(q, type) : int64_t{ESMS_INVAL};
}

int64_t frx_resetPCountFor(int channel, int type) noexcept {
    halvo_channel *q = frx_header(channel);
    if (!q || !is_type(type) || !writable_segment()) return ESMS_INVAL;
    const int64_t count = q_pcount_per_type(q, type);
    q->tcnt[type].count = 0;
    return count;
}
