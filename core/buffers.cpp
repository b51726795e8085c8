// sms_shm: the five parked messages per side. They lie in the segment, so that a parked or half
// processed message outlives the process that handles it. Buffer states: 0 empty, 1 holding.
#include <cstdio>

#include "core/read.h"
#include "core/ring.h"
#include "core/write.h"

using namespace halvo;

int q_read_buf(halvo_channel *q, void *buffer, int index) noexcept {
    touch_reader(q);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *held = buffer_slot(q, q->rbufs, index);
    if (load_state(held) == HALVO_SLOT_READABLE) {
        copy_slot(q, held, buffer);
        return ESMS_OK;
    }
    return take(q, buffer, held);
}

int q_read_buf_clear(halvo_channel *q, int index) noexcept {
    touch_reader(q);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *held = buffer_slot(q, q->rbufs, index);
    // Kept: an empty read buffer is ESMS_INVAL, an empty write buffer ESMS_NOTARGET.
    if (load_state(held) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    publish_state(held, HALVO_SLOT_FREE);
    return ESMS_OK;
}

int q_write_buf(halvo_channel *q, int type, const void *data, uint32_t length, int index) noexcept {
    touch_writer(q);
    const int fault = length_fault(q, data, length);
    if (fault != ESMS_OK) return report_length(q, fault, length);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, q->wbufs, index);
    if (load_state(parked) != HALVO_SLOT_FREE) return ESMS_PENDING;
    return park(q, parked, type, data, length);
}

int q_write_buf_commit(halvo_channel *q, int index) noexcept {
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, q->wbufs, index);
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    count_parked(q, -1); // the ring slot owed to this message is its own now
    const int result =
        write_message(q, parked->type, body(parked), parked->len, body_length(q, parked));
    if (result == ESMS_OK) {
        publish_state(parked, HALVO_SLOT_FREE);
    } else {
        count_parked(q, 1);
        std::printf("WARNING!!!!!!!! buff control broken! r= %d, pbuffs=%d\n", result, q->pbuffs);
    }
    return result;
}

int q_write_buf_rollback(halvo_channel *q, int index) noexcept {
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, q->wbufs, index);
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_NOTARGET;
    publish_state(parked, HALVO_SLOT_FREE);
    count_parked(q, -1);
    return ESMS_OK;
}
