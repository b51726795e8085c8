// sms_shm: the reader's side of a ring. Nothing here blocks, allocates or takes a lock.
#include "core/read.h"

#include <cstdio>

#include "core/ring.h"
#include "core/throttle.h"

using namespace halvo;

namespace {

uint32_t read_position(const halvo_channel *q) { return position_in(q, load(q->rpos)); }

// Frees the slot at the read position: counters, then the state, then the position.
void consume(halvo_channel *q, qmsg *slot, int error) {
    const uint32_t next = next_offset(q, read_position(q));
    q_gcount_up(q, slot, error);
    publish_state(slot, HALVO_SLOT_FREE);
    store(q->rpos, next);
}

} // namespace

void halvo::touch_reader(halvo_channel *q) noexcept {
    refresh(q->rtime, static_cast<int32_t>(q_gettime()));
}

int halvo::take(halvo_channel *q, void *buffer, qmsg *held) noexcept {
    touch_reader(q);
    if (rate_refused(q)) return ESMS_EMPTY;
    qmsg *slot = slot_at(q, read_position(q));
    if (load_state(slot) != HALVO_SLOT_READABLE) return ESMS_EMPTY;
    copy_slot(q, slot, buffer);
    if (held) {
        std::memcpy(reinterpret_cast<char *>(held) + sizeof held->state,
                    static_cast<const char *>(buffer) + sizeof held->state,
                    q->qbsz - sizeof held->state);
        publish_state(held, HALVO_SLOT_READABLE);
    }
    consume(q, slot, 0);
    return ESMS_OK;
}

int q_read(halvo_channel *q, void *buffer) noexcept { return take(q, buffer, nullptr); }

int q_readview(const halvo_channel *q, void *buffer) noexcept {
    copy_slot(q, slot_at(q, read_position(q)), buffer);
    return 0;
}

int q_read_mark(halvo_channel *q, int n) noexcept {
    touch_reader(q);
    if (rate_refused(q)) return 0;
    const uint32_t start = read_position(q);
    int count = 0;
    uint32_t offset = start;
    do {
        qmsg *slot = slot_at(q, offset);
        if (load_state(slot) != HALVO_SLOT_READABLE) break;
        publish_state(slot, HALVO_SLOT_MARKED);
        if (++count == n) break;
        offset = next_offset(q, offset);
    } while (offset != start);
    return count;
}

int q_read_markedcount(halvo_channel *q) noexcept {
    touch_reader(q);
    uint32_t count = 0;
    for (uint32_t offset = read_position(q); count < q->qcnt; ++count) {
        if (load_state(slot_at(q, offset)) != HALVO_SLOT_MARKED) break;
        offset = next_offset(q, offset);
    }
    return static_cast<int>(count);
}

int q_read_markedmsg(halvo_channel *q, int index, void *buffer) noexcept {
    touch_reader(q);
    if (index < 0) return ESMS_INVAL;
    const AheadOffset marked = offset_ahead(q, read_position(q), index);
    if (!marked.inside) {
        std::printf("%d(%d)  IndexOutOfBounds as tellg %d\n", index, index,
                    static_cast<int>(q->rpos));
        return ESMS_INVAL;
    }
    const qmsg *slot = slot_at(q, marked.offset);
    if (load_state(slot) != HALVO_SLOT_MARKED) return ESMS_INVAL;
    copy_slot(q, slot, buffer);
    return ESMS_OK;
}

int q_read_commit(halvo_channel *q, int n, int error) noexcept {
    touch_reader(q);
    const uint32_t start = read_position(q);
    int count = 0;
    do {
        qmsg *slot = slot_at(q, read_position(q));
        if (load_state(slot) != HALVO_SLOT_MARKED) break;
        consume(q, slot, error);
        ++count;
        if (n != 0 && count >= n) break;
    } while (q->rpos != start);
    return count;
}

// Kept: the code is not examined and no error is recorded, whatever it says; callers who want the
// error counted pass a flag to q_read_commit.
int q_read_commit_with_error(halvo_channel *q, int n, const char *code) noexcept {
    if (code) return q_read_commit(q, n, 0);
    touch_reader(q);
    return ESMS_INVAL;
}

int q_read_rollback(halvo_channel *q) noexcept {
    touch_reader(q);
    int count = 0;
    uint32_t offset = read_position(q);
    for (uint32_t looked = 0; looked < q->qcnt; ++looked, offset = next_offset(q, offset)) {
        qmsg *slot = slot_at(q, offset);
        if (load_state(slot) != HALVO_SLOT_MARKED) continue;
        publish_state(slot, HALVO_SLOT_READABLE);
        ++count;
    }
    return count;
}
