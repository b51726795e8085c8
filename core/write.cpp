// sms_shm: the writer's side of a ring. Nothing here blocks, allocates or takes a lock.
#include "core/write.h"

#include <algorithm>
#include <cstdio>

#include "core/ring.h"

using namespace halvo;

namespace {

void fill(qmsg *slot, int type, const void *data, uint32_t length) {
    slot->len = length;
    slot->type = static_cast<uint16_t>(type);
    std::memcpy(body(slot), data, length);
}

uint32_t write_position(const halvo_channel *q) { return position_in(q, load(q->wpos)); }

// Makes the slot at the write position readable: counters, then the state, then the position.
void publish(halvo_channel *q, qmsg *slot) {
    const uint32_t next = next_offset(q, write_position(q));
    q_pcount_up(q, slot, 0);
    publish_state(slot, HALVO_SLOT_READABLE);
    store(q->wpos, next);
}

int occupied(int32_t state) { return state == HALVO_SLOT_PENDING ? ESMS_PENDING : ESMS_FULL; }

// The slot that must be free so that every parked message can still be committed. The reader may
// free it at any moment, so each test looks afresh.
int look_ahead(const halvo_channel *q) {
    const AheadOffset ahead = offset_ahead(q, write_position(q), q->pbuffs);
    if (!ahead.inside) return ESMS_FULL;
    const qmsg *slot = slot_at(q, ahead.offset);
    if (load_state(slot) == HALVO_SLOT_FREE) return ESMS_OK;
    int32_t state = load_state(slot);
    if (state == HALVO_SLOT_READABLE || state == HALVO_SLOT_MARKED) return ESMS_FULL;
    state = load_state(slot);
    if (state == HALVO_SLOT_PENDING) {
        std::printf("ESMSPENDING...%d\n", state);
        return ESMS_PENDING;
    }
    state = load_state(slot);
    if (state == HALVO_SLOT_FREE) std::printf("Concurrent error Fixed..!...%d\n", state);
    return ESMS_OK;
}

int mark(qmsg *slot, int type, const void *data, uint32_t length) {
    const int32_t state = load_state(slot);
    if (state != HALVO_SLOT_FREE) return occupied(state);
    fill(slot, type, data, length);
    publish_state(slot, HALVO_SLOT_PENDING);
    return ESMS_OK;
}

} // namespace

namespace halvo {

void count_parked(halvo_channel *q, int32_t amount) noexcept {
    const auto parked = static_cast<uint32_t>(load(q->pbuffs));
    store(q->pbuffs, static_cast<int32_t>(parked + static_cast<uint32_t>(amount)));
}

void touch_writer(halvo_channel *q) noexcept {
    refresh(q->wtime, static_cast<int32_t>(q_gettime()));
}

uint32_t longest_message(const halvo_channel *q) noexcept {
    return q->qbsz > sizeof(qmsg) ? q->qbsz - static_cast<uint32_t>(sizeof(qmsg)) : 0;
}

int length_fault(const halvo_channel *q, const void *data, uint32_t length) noexcept {
    if (length == 0 || !data) return ESMS_INVAL;
    return length > longest_message(q) ? ESMS_EXEED : ESMS_OK;
}

int report_length(const halvo_channel *q, int fault, uint32_t length) noexcept {
    if (fault == ESMS_EXEED)
        std::printf("qbsz=%d,sizeof(qmsg)=%d,msize=%d\n", static_cast<int>(q->qbsz),
                    static_cast<int>(sizeof(qmsg)), static_cast<int>(length));
    return fault;
}

int park(halvo_channel *q, qmsg *buffer, int type, const void *data, uint32_t length) noexcept {
    // Kept: without -1 in pbuffs the slot behind the one owed to this message must be free too.
    if (q->pbuffs != -1) {
        const AheadOffset ahead = offset_ahead(q, write_position(q), int64_t{q->pbuffs} + 1);
        if (!ahead.inside) return ESMS_FULL;
        const int32_t state = load_state(slot_at(q, ahead.offset));
        if (state != HALVO_SLOT_FREE) return occupied(state);
    }
    fill(buffer, type, data, length);
    publish_state(buffer, HALVO_SLOT_READABLE);
    count_parked(q, 1);
    return ESMS_OK;
}

} // namespace halvo

int halvo::write_message(halvo_channel *q, int type, const void *data, uint32_t length,
                         uint32_t readable) noexcept {
    touch_writer(q);
    const int fault = length_fault(q, data, length);
    if (fault == ESMS_EXEED) {
        std::printf("q_write to %.24s %%qbsz=%d,sizeof(qmsg)=%d,msize=%d\n", q->qname,
                    static_cast<int>(q->qbsz), static_cast<int>(sizeof(qmsg)),
                    static_cast<int>(length));
        std::printf("DATA %.*s\n", static_cast<int>(std::min(readable, 100u)),
                    static_cast<const char *>(data));
    }
    if (fault != ESMS_OK) return fault;
    if (q->pbuffs != 0) {
        const int ahead = look_ahead(q);
        if (ahead != ESMS_OK) return ahead;
    }
    qmsg *slot = slot_at(q, write_position(q));
    const int32_t state = load_state(slot);
    if (state != HALVO_SLOT_FREE) return occupied(state);
    fill(slot, type, data, length);
    publish(q, slot);
    return ESMS_OK;
}

int q_write(halvo_channel *q, int type, const void *data, uint32_t length) noexcept {
    return write_message(q, type, data, length, length);
}

int q_write_mark(halvo_channel *q, int type, const void *data, uint32_t length) noexcept {
    touch_writer(q);
    const int fault = length_fault(q, data, length);
    if (fault != ESMS_OK) return report_length(q, fault, length);
    if (q->pbuffs != 0) {
        const AheadOffset ahead = offset_ahead(q, write_position(q), q->pbuffs);
        if (!ahead.inside) return ESMS_FULL;
        const int32_t state = load_state(slot_at(q, ahead.offset));
        if (state != HALVO_SLOT_FREE) return occupied(state);
    }
    return mark(slot_at(q, write_position(q)), type, data, length);
}

int q_write_mark_at(halvo_channel *q, int type, const void *data, uint32_t length,
                    uint32_t index) noexcept {
    touch_writer(q);
    const int fault = length_fault(q, data, length);
    if (fault != ESMS_OK) return report_length(q, fault, length);
    const uint32_t k = static_cast<uint32_t>(q->pbuffs) + index;
    if (index >= q->qcnt || k >= q->qcnt) return ESMS_INVAL;
    const AheadOffset ahead = offset_ahead(q, write_position(q), k);
    return ahead.inside ? mark(slot_at(q, ahead.offset), type, data, length) : ESMS_FULL;
}

int q_write_commit(halvo_channel *q) noexcept {
    touch_writer(q);
    qmsg *slot = slot_at(q, write_position(q));
    if (load_state(slot) != HALVO_SLOT_PENDING) return ESMS_NOTARGET;
    publish(q, slot);
    return ESMS_OK;
}

// Kept: the number of committed messages is not reported.
int q_write_commit_all(halvo_channel *q) noexcept {
    touch_writer(q);
    for (uint32_t count = 0; count < q->qcnt; ++count) {
        qmsg *slot = slot_at(q, write_position(q));
        if (load_state(slot) != HALVO_SLOT_PENDING) break;
        publish(q, slot);
    }
    return ESMS_OK;
}

int q_write_rollback(halvo_channel *q) noexcept {
    touch_writer(q);
    qmsg *slot = slot_at(q, write_position(q));
    if (load_state(slot) != HALVO_SLOT_PENDING) return ESMS_NOTARGET;
    publish_state(slot, HALVO_SLOT_FREE);
    return ESMS_OK;
}

int q_write_rollback_all(halvo_channel *q) noexcept {
    touch_writer(q);
    uint32_t count = 0;
    for (uint32_t offset = write_position(q); count < q->qcnt;
         offset = next_offset(q, offset), ++count) {
        qmsg *slot = slot_at(q, offset);
        if (load_state(slot) != HALVO_SLOT_PENDING) break;
        publish_state(slot, HALVO_SLOT_FREE);
    }
    return static_cast<int>(count);
}

int q_writeview(const halvo_channel *q, void *buffer) noexcept {
    copy_slot(q, slot_at(q, write_position(q)), buffer);
    return 0;
}

int q_writable_count(halvo_channel *q) noexcept {
    touch_writer(q);
    uint32_t count = 0;
    for (uint32_t offset = write_position(q); count < q->qcnt;
         offset = next_offset(q, offset), ++count) {
        const int32_t state = load_state(slot_at(q, offset));
        if (state == HALVO_SLOT_PENDING) return ESMS_PENDING;
        if (state != HALVO_SLOT_FREE) break;
    }
    return static_cast<int>(count - static_cast<uint32_t>(load(q->pbuffs)));
}
