// sms_shm: the writer's side of a ring. Nothing here blocks, allocates or takes a lock.
#include "core/ring/write.h"

#include <algorithm>

#include "core/base/output.h"

using namespace halvo;

namespace {

void fill(qmsg *slot, int type, const void *data, uint32_t length) {
    slot->len = length;
    slot->type = static_cast<uint16_t>(type);
    copy_bytes(body(slot), data, length);
}

int mark(qmsg *slot, int type, const void *data, uint32_t length) {
    const int32_t state = load_state(slot);
    if (state != HALVO_SLOT_FREE) return occupied(state);
    fill(slot, type, data, length);
    publish_state(slot, HALVO_SLOT_PENDING);
    return ESMS_OK;
}

[[gnu::cold]] int refuse(const halvo_channel *q, int fault, uint32_t size, const void *data,
                         uint32_t length, uint32_t readable) {
    if (fault != ESMS_EXEED) return fault;
    print("q_write to %.24s %%qbsz=%d,sizeof(qmsg)=%d,msize=%d\n", q->qname, static_cast<int>(size),
          static_cast<int>(sizeof(qmsg)), static_cast<int>(length));
    print("DATA %.*s\n", static_cast<int>(std::min({length, readable, 100u})),
          static_cast<const char *>(data));
    return fault;
}

// Of `data` only `readable` bytes are there: what a damaged length claims beyond them is refused, and
// not looked at.
template <class End>
[[gnu::always_inline]] inline int put(halvo_channel *q, const End &end, int type, const void *data,
                                      uint32_t length, uint32_t readable, qmsg *parked = nullptr) {
    end.touch();
    const int fault = length_fault(end, data, length);
    if (fault != ESMS_OK) [[unlikely]]
        return refuse(q, fault, end.size(), data, length, readable);
    const uint32_t offset = end.offset();
    const int room = room_at(q, end, offset);
    if (room != ESMS_OK) return room;
    qmsg *slot = end.slot(offset);
    end.prepare(offset, length);
    fill(slot, type, data, length);
    publish(q, end, offset, parked);
    return ESMS_OK;
}

} // namespace

namespace halvo {

int look_ahead(const halvo_channel *q, const Ring &ring, uint32_t offset) noexcept {
    const AheadOffset ahead = offset_ahead(ring, offset, load(q->pbuffs));
    if (!ahead.inside) return ESMS_FULL;
    const qmsg *slot = slot_at(q, ahead.offset);
    if (load_state(slot) == HALVO_SLOT_FREE) return ESMS_OK;
    int32_t state = load_state(slot);
    if (state == HALVO_SLOT_READABLE || state == HALVO_SLOT_MARKED) return ESMS_FULL;
    state = load_state(slot);
    if (state == HALVO_SLOT_PENDING) {
        print("ESMSPENDING...%d\n", state);
        return ESMS_PENDING;
    }
    state = load_state(slot);
    if (state == HALVO_SLOT_FREE) print("Concurrent error Fixed..!...%d\n", state);
    return ESMS_OK;
}

int report_length(uint32_t slot_size, int fault, uint32_t length) noexcept {
    if (fault != ESMS_EXEED) return fault;
    print("qbsz=%d,sizeof(qmsg)=%d,msize=%d\n", static_cast<int>(slot_size),
          static_cast<int>(sizeof(qmsg)), static_cast<int>(length));
    return fault;
}

void count_parked(halvo_channel *q, int32_t amount) noexcept {
    const auto parked = static_cast<uint32_t>(load(q->pbuffs));
    store(q->pbuffs, static_cast<int32_t>(parked + static_cast<uint32_t>(amount)));
}

int park(halvo_channel *q, const WriterEnd &end, qmsg *buffer, int type, const void *data,
         uint32_t length) noexcept {
    // Kept: without -1 in pbuffs the slot behind the one owed to this message must be free too.
    const int32_t parked = load(q->pbuffs);
    if (parked != -1) {
        const AheadOffset ahead = end.ahead(end.offset(), int64_t{parked} + 1);
        if (!ahead.inside) return ESMS_FULL;
        const int32_t state = load_state(end.slot(ahead.offset));
        if (state != HALVO_SLOT_FREE) return occupied(state);
    }
    fill(buffer, type, data, length);
    publish_state(buffer, HALVO_SLOT_READABLE);
    count_parked(q, 1);
    return ESMS_OK;
}

int write_message(halvo_channel *q, const WriterEnd &end, int type, const void *data,
                  uint32_t length) noexcept {
    return put(q, end, type, data, length, length);
}

int write_parked(halvo_channel *q, const WriterEnd &end, qmsg *parked) noexcept {
    const uint32_t readable = end.size() - static_cast<uint32_t>(offsetof(qmsg, data));
    return put(q, end, parked->type, body(parked), load(parked->len), readable, parked);
}

} // namespace halvo

int q_write(halvo_channel *q, int type, const void *data, uint32_t length) noexcept {
    const QuickWriterEnd end(q);
    if (!end.holds()) [[unlikely]]
        return write_message(q, WriterEnd(q), type, data, length);
    return put(q, end, type, data, length, length);
}

int q_write_mark(halvo_channel *q, int type, const void *data, uint32_t length) noexcept {
    const WriterEnd end(q);
    end.touch();
    const int fault = length_fault(end, data, length);
    if (fault != ESMS_OK) return report_length(end.size(), fault, length);
    if (load(q->pbuffs) != 0) {
        const AheadOffset ahead = end.ahead(end.offset(), load(q->pbuffs));
        if (!ahead.inside) return ESMS_FULL;
        const int32_t state = load_state(end.slot(ahead.offset));
        if (state != HALVO_SLOT_FREE) return occupied(state);
    }
    return mark(end.slot(end.offset()), type, data, length);
}

int q_write_mark_at(halvo_channel *q, int type, const void *data, uint32_t length,
                    uint32_t index) noexcept {
    const WriterEnd end(q);
    end.touch();
    const int fault = length_fault(end, data, length);
    if (fault != ESMS_OK) return report_length(end.size(), fault, length);
    const uint32_t slots = load(q->qcnt), k = static_cast<uint32_t>(load(q->pbuffs)) + index;
    if (index >= slots || k >= slots) return ESMS_INVAL;
    const AheadOffset ahead = end.ahead(end.offset(), k);
    return ahead.inside ? mark(end.slot(ahead.offset), type, data, length) : ESMS_FULL;
}

int q_write_commit(halvo_channel *q) noexcept {
    const WriterEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t offset = end.offset();
    if (load_state(end.slot(offset)) != HALVO_SLOT_PENDING) return ESMS_NOTARGET;
    publish(q, end, offset);
    return ESMS_OK;
}

// Kept: the number of committed messages is not reported.
int q_write_commit_all(halvo_channel *q) noexcept {
    const WriterEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    uint32_t offset = end.offset();
    for (uint32_t left = end.slots(); left > 0; --left, offset = end.next(offset)) {
        if (load_state(end.slot(offset)) != HALVO_SLOT_PENDING) break;
        publish(q, end, offset);
    }
    return ESMS_OK;
}

int q_write_rollback(halvo_channel *q) noexcept {
    const WriterEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    qmsg *slot = end.slot(end.offset());
    if (load_state(slot) != HALVO_SLOT_PENDING) return ESMS_NOTARGET;
    publish_state(slot, HALVO_SLOT_FREE);
    return ESMS_OK;
}

int q_write_rollback_all(halvo_channel *q) noexcept {
    const WriterEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t slots = end.slots();
    uint32_t count = 0;
    for (uint32_t offset = end.offset(); count < slots; offset = end.next(offset), ++count) {
        qmsg *slot = end.slot(offset);
        if (load_state(slot) != HALVO_SLOT_PENDING) break;
        publish_state(slot, HALVO_SLOT_FREE);
    }
    return static_cast<int>(count);
}

int halvo::write_view_image(const halvo_channel *q, void *image, uint32_t size) noexcept {
    return view_slot(WriterEnd(const_cast<halvo_channel *>(q)), image, size);
}

int q_writeview(const halvo_channel *q, void *buffer) noexcept {
    return write_view_image(q, buffer, kAnySize);
}

int q_writable_count(halvo_channel *q) noexcept {
    const WriterEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t slots = end.slots();
    uint32_t count = 0;
    for (uint32_t offset = end.offset(); count < slots; offset = end.next(offset), ++count) {
        const int32_t state = load_state(end.slot(offset));
        if (state == HALVO_SLOT_PENDING) return ESMS_PENDING;
        if (state != HALVO_SLOT_FREE) break;
    }
    return static_cast<int>(count - static_cast<uint32_t>(load(q->pbuffs)));
}
