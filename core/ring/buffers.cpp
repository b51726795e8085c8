// sms_shm: the five parked messages per side. They lie in the segment, so that a parked or half
// processed message outlives the process that handles it. Buffer states: 0 empty, 1 holding.
#include "core/base/output.h"
#include "core/ring/read.h"
#include "core/ring/write.h"
#include "core/segment/ring.h"

using namespace halvo;

namespace {

// A buffer slot of an end, or null for a number that is none and for one outside the segment.
template <class End>
qmsg *buffer_of(halvo_channel *q, const End &end, uint32_t area, int index) {
    if (!end.usable() || !is_buffer_index(index)) return nullptr;
    return buffer_slot(q, area, index, end.size(), end.size());
}

} // namespace

int halvo::read_buf_image(halvo_channel *q, void *image, uint32_t size, int index) noexcept {
    const ReaderEnd end(q);
    end.touch();
    qmsg *held = buffer_of(q, end, load(q->rbufs), index);
    if (!held) return ESMS_INVAL;
    if (!is_size_of(end.ring(), size)) return ESMS_FAILED;
    if (load_state(held) == HALVO_SLOT_READABLE) {
        copy_slot(end.size(), held, image);
        return ESMS_OK;
    }
    return take(q, end, image, held);
}

int q_read_buf(halvo_channel *q, void *buffer, int index) noexcept {
    return read_buf_image(q, buffer, kAnySize, index);
}

int q_read_buf_clear(halvo_channel *q, int index) noexcept {
    const ReaderEnd end(q);
    end.touch();
    qmsg *held = buffer_of(q, end, load(q->rbufs), index);
    if (!held) return ESMS_INVAL;
    // Kept: an empty read buffer is ESMS_INVAL, an empty write buffer ESMS_NOTARGET.
    if (load_state(held) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    publish_state(held, HALVO_SLOT_FREE);
    return ESMS_OK;
}

int q_write_buf(halvo_channel *q, int type, const void *data, uint32_t length, int index) noexcept {
    const WriterEnd end(q);
    end.touch();
    const int fault = length_fault(end, data, length);
    if (fault != ESMS_OK) return report_length(end.size(), fault, length);
    qmsg *parked = buffer_of(q, end, load(q->wbufs), index);
    if (!parked) return ESMS_INVAL;
    if (load_state(parked) != HALVO_SLOT_FREE) return ESMS_PENDING;
    return park(q, end, parked, type, data, length);
}

int q_write_buf_commit(halvo_channel *q, int index) noexcept {
    const WriterEnd end(q);
    qmsg *parked = buffer_of(q, end, load(q->wbufs), index);
    if (!parked) return ESMS_INVAL;
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_INVAL;
    count_parked(q, -1); // the ring slot owed to this message is its own now
    const int result = write_parked(q, end, parked);
    if (result != ESMS_OK) {
        count_parked(q, 1);
        print("WARNING!!!!!!!! buff control broken! r= %d, pbuffs=%d\n", result, load(q->pbuffs));
    }
    return result;
}

int q_write_buf_rollback(halvo_channel *q, int index) noexcept {
    const WriterEnd end(q);
    qmsg *parked = buffer_of(q, end, load(q->wbufs), index);
    if (!parked) return ESMS_INVAL;
    if (load_state(parked) != HALVO_SLOT_READABLE) return ESMS_NOTARGET;
    publish_state(parked, HALVO_SLOT_FREE);
    count_parked(q, -1);
    return ESMS_OK;
}
