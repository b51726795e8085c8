// sms_shm: messages that are read and written where they lie, without a copy.
#include "core/ring/read.h"
#include "core/ring/write.h"
#include "halvo/queue.h"

using namespace halvo;

namespace {

template <class End>
[[gnu::always_inline]] inline int peek(halvo_channel *q, const End &end, const qmsg **slot) {
    end.touch();
    if (!end.usable() || !slot) return ESMS_INVAL;
    if (rate_refused(q)) return ESMS_EMPTY;
    const qmsg *next = end.slot(end.offset());
    if (load_state(next) != HALVO_SLOT_READABLE) return ESMS_EMPTY;
    *slot = next;
    return ESMS_OK;
}

template <class End>
[[gnu::always_inline]] inline int release(halvo_channel *q, const End &end, int error) {
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t offset = end.offset();
    if (load_state(end.slot(offset)) != HALVO_SLOT_READABLE) return ESMS_NOTARGET;
    consume(q, end, offset, error);
    return ESMS_OK;
}

template <class End>
[[gnu::always_inline]] inline int read_body(halvo_channel *q, const End &end, int *type,
                                            void *buffer, uint32_t capacity, uint32_t *length) {
    end.touch();
    if (!end.usable() || !buffer) return ESMS_INVAL;
    if (rate_refused(q)) return ESMS_EMPTY;
    const uint32_t offset = end.offset();
    const qmsg *slot = end.slot(offset);
    if (load_state(slot) != HALVO_SLOT_READABLE) return ESMS_EMPTY;
    const uint32_t bytes = body_length(end.size(), slot);
    if (length) *length = bytes;
    if (bytes > capacity) return ESMS_EXEED;
    if (type) *type = slot->type;
    copy_bytes(buffer, body(slot), bytes);
    consume(q, end, offset, 0);
    return ESMS_OK;
}

// How much of a slot to ask for ahead of a message that is built in it. All of a body of up to 1024
// bytes: the caller writes it sooner than the processor itself would see it coming. Of a longer one
// the begin: the processor sees that coming, and many builders leave most of it as it was.
constexpr uint32_t bytes_ahead(uint32_t length) {
    constexpr uint32_t kWhole = 1024, kBegin = 128;
    return length <= kWhole ? length : kBegin;
}

template <class End>
[[gnu::always_inline]] inline int reserve(halvo_channel *q, const End &end, uint32_t length,
                                          qmsg **slot) {
    end.touch();
    const int fault = length_fault(end, slot, length);
    if (fault != ESMS_OK) [[unlikely]]
        return report_length(end.size(), fault, length);
    const uint32_t offset = end.offset();
    const int room = room_at(q, end, offset);
    if (room != ESMS_OK) return room;
    end.prepare(offset, bytes_ahead(length));
    *slot = end.slot(offset);
    return ESMS_OK;
}

// The room is looked at again: what came between the two calls, a mark or a parked message, may have
// taken it.
template <class End>
[[gnu::always_inline]] inline int publish_reserved(halvo_channel *q, const End &end, int type,
                                                   uint32_t length) {
    end.touch();
    const int fault = length_fault(end, q, length);
    if (fault != ESMS_OK) [[unlikely]]
        return report_length(end.size(), fault, length);
    const uint32_t offset = end.offset();
    const int room = room_at(q, end, offset);
    if (room != ESMS_OK) return room;
    qmsg *slot = end.slot(offset);
    slot->len = length;
    slot->type = static_cast<uint16_t>(type);
    publish(q, end, offset);
    return ESMS_OK;
}

} // namespace

int q_peek(halvo_channel *q, const qmsg **slot) noexcept {
    const QuickReaderEnd end(q);
    return end.holds() ? peek(q, end, slot) : peek(q, ReaderEnd(q), slot);
}

int q_release(halvo_channel *q, int error) noexcept {
    const QuickReaderEnd end(q);
    return end.holds() ? release(q, end, error) : release(q, ReaderEnd(q), error);
}

int q_read_body(halvo_channel *q, int *type, void *buffer, uint32_t capacity,
                uint32_t *length) noexcept {
    const QuickReaderEnd end(q);
    return end.holds() ? read_body(q, end, type, buffer, capacity, length)
                       : read_body(q, ReaderEnd(q), type, buffer, capacity, length);
}

int q_reserve(halvo_channel *q, uint32_t length, qmsg **slot) noexcept {
    const QuickWriterEnd end(q);
    return end.holds() ? reserve(q, end, length, slot) : reserve(q, WriterEnd(q), length, slot);
}

int q_publish(halvo_channel *q, int type, uint32_t length) noexcept {
    const QuickWriterEnd end(q);
    return end.holds() ? publish_reserved(q, end, type, length)
                       : publish_reserved(q, WriterEnd(q), type, length);
}
