// Java binding, Channel: reads, writes and transactions. Each has two forms: without a wake cell it
// tries once and answers ESMS_EMPTY or ESMS_FULL, with one it waits.
#include <algorithm>

#include "core/ring/read.h"
#include "jni/companion.h"
#include "jni/wake.h"

using namespace halvo;

namespace {

constexpr int kTypeShift = 32; // a read's result: the type above the length

// Runs attempt(), which gets a place for "not yet", once or until it no longer says so.
template <class Attempt>
jint once_or_waiting(const Waiter &waiter, WakeCell *cell, jint not_yet, Attempt attempt) {
    jint result = ESMS_OK;
    const auto settled = [&] {
        result = attempt();
        return result != not_yet;
    };
    if (!cell) {
        settled();
        return result;
    }
    const WakeableWait wakeable(cell);
    if (!wakeable.may_wait()) return ESMS_JAVAINTR;
    // A wait forgets the signals that came before it registers, and then tries once more.
    const Wait wait = wait_until(waiter, [&] {
        if (settled()) return true;
        if (!wakeable.is_called()) return false;
        result = ESMS_JAVAINTR;
        return true;
    });
    return wait == Wait::settled ? result : code_of(wait);
}

// A staged message of a batch: its length and type, then its body.
struct Staged {
    uint32_t length;
    int32_t type;
};
static_assert(sizeof(Staged) == 8);

// Writes staged messages, for which there is room. Their number; the code of the first that was
// refused, when it was the first of all.
jint write_staged(halvo_channel *q, const char *at, jint count) {
    for (jint written = 0; written < count; ++written) {
        Staged head;
        std::memcpy(&head, at, sizeof head);
        at += sizeof head;
        const int result = q_write(q, head.type, at, head.length);
        if (result != ESMS_OK) return written > 0 ? written : result;
        at += head.length;
    }
    return count;
}

} // namespace

// type << 32 | length of the message whose body was copied; ESMS_EXEED when it is longer than the
// range, and stays.
COMPANION_NATIVE(jlong, ChannelCalls, read)
(JNIEnv *env, jclass, jobject cell, jint channel, jbyteArray into, jint offset, jint length,
 jint timeout) noexcept {
    const ArrayRange range{into, offset, length};
    if (!can_receive(env, range)) return ESMS_INVAL;
    const CheckedChannel end = owned_channel(kReader, channel);
    if (end.fault != ESMS_OK) return end.fault;
    // No body is longer than a slot, however long the range.
    const uint32_t capacity = std::min(slot_size(end.q), static_cast<uint32_t>(length));
    const Block bytes(capacity);
    if (!bytes.get()) return ESMS_FAILED;
    int type = 0;
    uint32_t size = 0;
    const jint result =
        once_or_waiting({kReader, end.q, channel, timeout}, cell_of(env, cell), ESMS_EMPTY,
                        [&] { return q_read_body(end.q, &type, bytes.get(), capacity, &size); });
    if (result != ESMS_OK) return result;
    finish_transfer(kReader, end.q, channel);
    copy_out(env, range, bytes.get(), size);
    return jlong{type} << kTypeShift | size;
}

COMPANION_NATIVE(jint, ChannelCalls, write)
(JNIEnv *env, jclass, jobject cell, jint channel, jint type, jbyteArray data, jint offset,
 jint length, jint timeout) noexcept {
    return on_side(kWriter, channel, [&](halvo_channel *q) {
        const BytesIn bytes(env, {data, offset, length});
        if (bytes.fault() != ESMS_OK) return bytes.fault();
        const jint result =
            once_or_waiting({kWriter, q, channel, timeout}, cell_of(env, cell), ESMS_FULL,
                            [&] { return q_write(q, type, bytes.data(), bytes.length()); });
        if (result == ESMS_OK) finish_transfer(kWriter, q, channel);
        return result;
    });
}

// Marks at most n messages, as many as there is room for their slots, and copies each to the place of
// its slot. Returns their number.
COMPANION_NATIVE(jint, ChannelCalls, mark)
(JNIEnv *env, jclass, jobject cell, jint channel, jint n, jbyteArray slots, jint timeout) noexcept {
    return on_side(kReader, channel, [&](halvo_channel *q) -> jint {
        const uint32_t size = slot_size(q);
        if (n < 1 || int64_t{n} * size > env->GetArrayLength(slots)) return ESMS_INVAL;
        const jint marked = once_or_waiting({kReader, q, channel, timeout}, cell_of(env, cell),
                                            ESMS_EMPTY, [&]() -> jint {
                                                const int count = q_read_mark(q, n);
                                                return count != 0 ? count : ESMS_EMPTY;
                                            });
        if (marked <= 0) return marked;
        refresh(q->rwait, 0);
        jint copied = 0;
        {
            const PinnedBytes bytes(env, slots, 0);
            while (bytes.get() && copied < marked &&
                   read_marked_message(q, bytes.get() + size_t{size} * static_cast<size_t>(copied),
                                       size, copied) == ESMS_OK)
                ++copied;
        }
        if (copied == marked) return marked;
        q_read_rollback(q);
        return ESMS_FAILED;
    });
}

// Makes `count` staged messages readable. ESMS_FULL, or a wait, when there is no room for all. Returns
// their number, which is less only when somebody damages the channel meanwhile.
COMPANION_NATIVE(jint, ChannelCalls, writeAll)
(JNIEnv *env, jclass, jobject cell, jint channel, jbyteArray staged, jint count,
 jint timeout) noexcept {
    return on_side(kWriter, channel, [&](halvo_channel *q) -> jint {
        const jint room =
            once_or_waiting({kWriter, q, channel, timeout}, cell_of(env, cell), ESMS_FULL, [&] {
                const int writable = q_writable_count(q);
                return writable >= 0 && writable < count ? ESMS_FULL : writable;
            });
        if (room < 0) return room;
        jint result = ESMS_FAILED;
        {
            const PinnedBytes bytes(env, staged, JNI_ABORT);
            if (bytes.get()) result = write_staged(q, bytes.get(), count);
        }
        finish_transfer(kWriter, q, channel);
        return result;
    });
}
