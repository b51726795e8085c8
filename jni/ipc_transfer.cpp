// Java binding, IPCFunctions: the seven natives that wait for a message or for room.
//
// Kept: a read always waits, a write only when its timeout is 0 or more. An interrupted write
// raises an exception, an interrupted read does not.
#include <pthread.h>

#include <cstdio>

#include "core/ring/read.h"
#include "jni/native.h"

using namespace halvo;

namespace {

// ---- Reading

template <class Operation>
jint read_one(JNIEnv *env, jint channel, const ArrayRange &range, jint timeout, jboolean raw,
              Registration registration, Operation operation) {
    if (!has_room(env, range)) return ESMS_INVAL;
    const CheckedChannel end = owned_channel(kReader, channel);
    if (end.fault != ESMS_OK) return end.fault;
    const SlotImage image(end.q);
    if (!image) return ESMS_FAILED;
    jint result = ESMS_OK;
    const Wait wait = wait_until({kReader, end.q, channel, timeout, registration}, [&] {
        result = operation(end.q, image);
        return result != ESMS_EMPTY;
    });
    if (wait == Wait::unregistered) return ESMS_MTXLOCK;
    if (wait != Wait::settled) return code_of(wait);
    if (result != ESMS_OK) return result;
    finish_transfer(kReader, end.q, channel);
    // Kept: a message of which nothing can be copied (length 0) is consumed all the same.
    return deliver(env, range, image, raw);
}

// ---- Writing

void raise_interrupted(JNIEnv *env) {
    char text[50] = {};
    std::snprintf(text, sizeof text, "sendMessage interrupted at #%d",
                  static_cast<int>(pthread_self()));
    JNU_ThrowByName(env, "java/lang/InterruptedException", text);
}

// Waits for room until attempt(), which gets the channel, returns a result that is not "full".
template <class Attempt>
jint wait_for_room(JNIEnv *env, halvo_channel *q, jint channel, jint timeout, Attempt attempt) {
    jint result = ESMS_OK;
    const Wait wait = wait_until({kWriter, q, channel, timeout}, [&] {
        bool full = false;
        result = attempt(full);
        return !full || timeout < 0;
    });
    if (wait == Wait::settled) return result;
    if (wait == Wait::interrupted) raise_interrupted(env);
    return code_of(wait);
}

// What follows a message that went into the ring: nothing, or the end of the announcement and a call
// for the reader. The channel is the one that the message went to, whatever its header says by now.
enum class Then { nothing, wake };

// One message into the channel by operation(q, bytes); `failure` is the line for a refusal.
template <class Operation>
jint put(JNIEnv *env, jint channel, const ArrayRange &range, jint timeout, const char *failure,
         Then then, Operation operation) {
    return on_side(kWriter, channel, [&](halvo_channel *q) {
        const BytesIn bytes(env, range);
        if (bytes.fault() != ESMS_OK) return bytes.fault();
        const jint result = wait_for_room(env, q, channel, timeout, [&](bool &full) {
            const jint put_now = operation(q, bytes);
            full = put_now == ESMS_FULL;
            if (put_now < 0 && !full) std::puts(failure);
            return put_now;
        });
        if (result == ESMS_OK && then == Then::wake) finish_transfer(kWriter, q, channel);
        return result;
    });
}

} // namespace

IPC_NATIVE(jint, read)
(JNIEnv *env, jclass, jint channel, jbyteArray buf, jint offset, jint length, jint timeout,
 jboolean raw) noexcept {
    return read_one(env, channel, {buf, offset, length}, timeout, raw, Registration::optional,
                    [](halvo_channel *q, const SlotImage &image) {
                        return read_image(q, image.get(), image.size());
                    });
}

// Kept: here alone a full registry of waiting threads ends the call, and rwait stays raised.
IPC_NATIVE(jint, readBuf)
(JNIEnv *env, jclass, jint channel, jbyteArray buf, jint offset, jint length, jint timeout,
 jboolean raw, jint index) noexcept {
    return read_one(env, channel, {buf, offset, length}, timeout, raw, Registration::required,
                    [=](halvo_channel *q, const SlotImage &image) {
                        return read_buf_image(q, image.get(), image.size(), index);
                    });
}

IPC_NATIVE(jint, readMark)(JNIEnv *, jclass, jint channel, jint n, jint timeout) noexcept {
    return on_side(kReader, channel, [=](halvo_channel *q) -> jint {
        jint marked = 0;
        const Wait wait = wait_until({kReader, q, channel, timeout}, [&] {
            marked = q_read_mark(q, n);
            return marked != 0;
        });
        // Kept: a wait that timed out answers 0, as if nothing had been there to mark. A mark
        // neither ends the announcement of waiting readers nor wakes the writer.
        if (wait == Wait::timed_out) return 0;
        return wait == Wait::settled ? marked : code_of(wait);
    });
}

IPC_NATIVE(jint, write)
(JNIEnv *env, jclass, jint channel, jint type, jbyteArray data, jint offset, jint length,
 jint timeout) noexcept {
    return put(env, channel, {data, offset, length}, timeout, "snd error .....", Then::wake,
               [=](halvo_channel *q, const BytesIn &bytes) {
                   return q_write(q, type, bytes.data(), bytes.length());
               });
}

IPC_NATIVE(jint, writeBuf)
(JNIEnv *env, jclass, jint channel, jint type, jbyteArray data, jint offset, jint length,
 jint index, jint timeout) noexcept {
    return put(env, channel, {data, offset, length}, timeout, "snd buf error .....", Then::wake,
               [=](halvo_channel *q, const BytesIn &bytes) {
                   return q_write_buf(q, type, bytes.data(), bytes.length(), index);
               });
}

// Kept: a mark neither ends the announcement of waiting writers nor wakes the reader.
IPC_NATIVE(jint, writeMark)
(JNIEnv *env, jclass, jint channel, jint type, jbyteArray data, jint offset, jint length,
 jint timeout) noexcept {
    return put(env, channel, {data, offset, length}, timeout, "snd error .....", Then::nothing,
               [=](halvo_channel *q, const BytesIn &bytes) {
                   return q_write_mark(q, type, bytes.data(), bytes.length());
               });
}

IPC_NATIVE(jint, writeWait4N)(JNIEnv *env, jclass, jint channel, jint n, jint timeout) noexcept {
    const halvo_channel *known = checked_channel(channel);
    if (!known || n < 1 || static_cast<uint32_t>(n) > known->qcnt) return ESMS_INVAL;
    return on_side(kWriter, channel, [=](halvo_channel *q) {
        return wait_for_room(env, q, channel, timeout, [=](bool &full) {
            const jint count = q_writable_count(q);
            full = count >= 0 && count < n;
            return count;
        });
    });
}
