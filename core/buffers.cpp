// sms_shm: the five parked messages per side. They lie in the segment, so that a parked or half
// processed message outlives the process that handles it. Buffer states: 0 empty, 1 holding.
#include <cstdio>

#include "core/read.h"
#include "core/ring.h"
#include "core/write.h"

using namespace halvo;

int q_read_buf(halvo_channel *q, void *buffer, int index) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *held = buffer_slot(q, end.at().rbufs, index, end.at().size);
    if (load_state(held) == HALVO_SLOT_READABLE) {
        copy_slot(end.at().size, held, buffer);
        return ESMS_OK;
    }
    return take(q, end, buffer, held);
}

int q_read_buf_clear(halvo_channel *q, int index) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *held = buffer_slot(q, end.at().rbufs, index, end.at().size);
    // Kept: an empty read buffer is ESMS_INVAL, an empty write buffer ESMS_NOTARGET.
    if (load_state(held) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    publish_state(held, HALVO_SLOT_FREE);
    return ESMS_OK;
}

int q_write_buf(halvo_channel *q, int type, const void *data, uint32_t length, int index) noexcept {
    const WriterEnd end(q);
    end.touch();
    const int fault = length_fault(end, data, length);
    if (fault != ESMS_OK) return report_length(end, fault, length);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, end.at().wbufs, index, end.at().size);
    if (load_state(parked) != HALVO_SLOT_FREE) return ESMS_PENDING;
    return park(q, end, parked, type, data, length);
}

int q_write_buf_commit(halvo_channel *q, int index) noexcept {
    const WriterEnd end(q);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, end.at().wbufs, index, end.at().size);
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    count_parked(q, -1); // the ring slot owed to this message is its own now
    const int result = write_message(q, parked->type, body(parked), parked->len,
                                     body_length(end.at().size, parked));
    if (result == ESMS_OK) {
        publish_state(parked, HALVO_SLOT_FREE);
    } else {
        count_parked(q, 1);
        std::printf("WARNING!!!!!!!! buff control broken! r= %d, pbuffs=%d\n", result, q->pbuffs);
    }
    return result;
}

int q_write_buf_rollback(halvo_channel *q, int index) noexcept {
    const WriterEnd end(q);
    if (!is_buffer_index(index)) return ESMS_INVAL;
    qmsg *parked = buffer_slot(q, end.at().wbufs, index, end.at().size);
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_NOTARGET;
    publish_state(parked, HALVO_SLOT_FREE);
    count_parked(q, -1);
    return ESMS_OK;
}
