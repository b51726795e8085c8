// sms_shm: the reader's side of a ring. Nothing here blocks, allocates or takes a lock.
#include "core/ring/read.h"

#include "core/base/output.h"

using namespace halvo;

namespace {

template <class End>
[[gnu::always_inline]] inline int get(halvo_channel *q, const End &end, void *buffer, qmsg *held) {
    if (!end.usable()) return ESMS_INVAL;
    if (rate_refused(q)) return ESMS_EMPTY;
    const uint32_t offset = end.offset(), size = end.size();
    const qmsg *slot = end.slot(offset);
    if (load_state(slot) != HALVO_SLOT_READABLE) return ESMS_EMPTY;
    copy_slot(size, slot, buffer);
    if (held) {
        constexpr auto kState = static_cast<uint32_t>(sizeof held->state);
        copy_bytes(reinterpret_cast<char *>(held) + kState,
                   static_cast<const char *>(buffer) + kState, size - kState);
        publish_state(held, HALVO_SLOT_READABLE);
    }
    consume(q, end, offset, 0);
    return ESMS_OK;
}

[[gnu::cold]] int read_anew(halvo_channel *q, void *buffer, uint32_t size) {
    const ReaderEnd end(q);
    end.touch();
    if (end.usable() && !is_size_of(end.ring(), size)) return ESMS_FAILED;
    return get(q, end, buffer, nullptr);
}

// Gives marked message `index` to use(slot size, slot), if the slots have that size.
template <class Use>
int with_marked(halvo_channel *q, uint32_t size, int index, Use use) {
    const ReaderEnd end(q);
    end.touch();
    if (index < 0 || !end.usable()) return ESMS_INVAL;
    if (!is_size_of(end.ring(), size)) return ESMS_FAILED;
    const AheadOffset marked = end.ahead(end.offset(), index);
    if (!marked.inside) {
        print("%d(%d)  IndexOutOfBounds as tellg %d\n", index, index,
              static_cast<int>(load(q->rpos)));
        return ESMS_INVAL;
    }
    const qmsg *slot = end.slot(marked.offset);
    if (load_state(slot) != HALVO_SLOT_MARKED) return ESMS_INVAL;
    use(end.size(), slot);
    return ESMS_OK;
}

} // namespace

int halvo::take(halvo_channel *q, const ReaderEnd &end, void *buffer, qmsg *held) noexcept {
    return get(q, end, buffer, held);
}

int q_read(halvo_channel *q, void *buffer) noexcept {
    const QuickReaderEnd end(q);
    if (!end.holds()) [[unlikely]]
        return read_anew(q, buffer, kAnySize);
    end.touch();
    return get(q, end, buffer, nullptr);
}

int halvo::read_image(halvo_channel *q, void *image, uint32_t size) noexcept {
    const QuickReaderEnd end(q);
    if (!end.holds() || end.size() != size) [[unlikely]]
        return read_anew(q, image, size);
    end.touch();
    return get(q, end, image, nullptr);
}

int halvo::read_view_image(const halvo_channel *q, void *image, uint32_t size) noexcept {
    return view_slot(ReaderEnd(const_cast<halvo_channel *>(q)), image, size);
}

int q_readview(const halvo_channel *q, void *buffer) noexcept {
    return read_view_image(q, buffer, kAnySize);
}

int q_read_mark(halvo_channel *q, int n) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    if (rate_refused(q)) return 0;
    const uint32_t start = end.offset();
    int count = 0;
    uint32_t offset = start;
    do {
        qmsg *slot = end.slot(offset);
        if (load_state(slot) != HALVO_SLOT_READABLE) break;
        publish_state(slot, HALVO_SLOT_MARKED);
        if (++count == n) break;
        offset = end.next(offset);
    } while (offset != start);
    return count;
}

int q_read_markedcount(halvo_channel *q) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t slots = end.slots();
    uint32_t count = 0;
    for (uint32_t offset = end.offset(); count < slots; ++count) {
        if (load_state(end.slot(offset)) != HALVO_SLOT_MARKED) break;
        offset = end.next(offset);
    }
    return static_cast<int>(count);
}

int q_read_markedmsg(halvo_channel *q, int index, void *buffer) noexcept {
    return read_marked_image(q, buffer, kAnySize, index);
}

int halvo::read_marked_image(halvo_channel *q, void *image, uint32_t size, int index) noexcept {
    return with_marked(q, size, index, [=](uint32_t slot_size, const qmsg *slot) {
        copy_slot(slot_size, slot, image);
    });
}

int halvo::read_marked_message(halvo_channel *q, void *image, uint32_t size, int index) noexcept {
    return with_marked(q, size, index, [=](uint32_t slot_size, const qmsg *slot) {
        auto *message = static_cast<qmsg *>(image);
        copy_slot(offsetof(qmsg, data), slot, message);
        copy_bytes(body(message), body(slot), body_length(slot_size, message));
    });
}

int q_peek_marked(halvo_channel *q, int index, const qmsg **slot) noexcept {
    constexpr int kBad = -1;
    return with_marked(q, kAnySize, slot ? index : kBad,
                       [=](uint32_t, const qmsg *marked) { *slot = marked; });
}

int q_read_commit(halvo_channel *q, int n, int error) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    const uint32_t start = end.offset();
    uint32_t offset = start;
    int count = 0;
    do {
        if (load_state(end.slot(offset)) != HALVO_SLOT_MARKED) break;
        consume(q, end, offset, error);
        ++count;
        if (n != 0 && count >= n) break;
        offset = end.next(offset);
    } while (offset != start);
    return count;
}

// Kept: the code is not examined and no error is recorded, whatever it says; callers who want the
// error counted pass a flag to q_read_commit.
int q_read_commit_with_error(halvo_channel *q, int n, const char *code) noexcept {
    if (code) return q_read_commit(q, n, 0);
    const ReaderEnd end(q);
    end.touch();
    return ESMS_INVAL;
}

int q_read_rollback(halvo_channel *q) noexcept {
    const ReaderEnd end(q);
    end.touch();
    if (!end.usable()) return ESMS_INVAL;
    int count = 0;
    uint32_t offset = end.offset();
    for (uint32_t left = capacity(end.ring()); left > 0; --left, offset = end.next(offset)) {
        qmsg *slot = end.slot(offset);
        if (load_state(slot) != HALVO_SLOT_MARKED) continue;
        publish_state(slot, HALVO_SLOT_READABLE);
        ++count;
    }
    return count;
}
