// Java binding: what the natives share: signatures, exceptions, the channel and owner checks, and
// the ways between a Java array and memory.
//
// The natives keep no state between calls and take no lock. Nothing leaves them as a C++ exception.
// While a Java exception is pending they make no further call into the VM but to give things back.
#pragma once

#include <jni.h>

#include <cstdint>

#include "core/wait/blocking.h"
#include "jni/scoped.h"

#define IPC_NATIVE(type, name)                                                                     \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_IPCFunctions_##name

// Raises a Java exception of a class named as in "java/io/IOException". A pending exception stays
// and nothing is raised over it. Returns 0, or a negative number when nothing was raised.
extern "C" jint JNU_ThrowByName(JNIEnv *env, const char *class_name, const char *message) noexcept;

namespace halvo {

// The result for a path that cannot be read: -2, whatever code has that value too.
constexpr jint kNoPath = -2;

// The letter of an end in the calls of halvo/queue.h.
constexpr char mode_of(jboolean for_write) noexcept { return for_write ? 'w' : 'r'; }

// A channel that passed the checks, or the code to return at once.
struct CheckedChannel {
    jint fault;
    halvo_channel *q;
};

// ESMS_INVAL for an unknown channel, then ESMS_ACCESS when another process holds the side.
CheckedChannel owned_channel(const Side &side, jint channel) noexcept;

// Opens an end of a channel for a client: ESMS_OK, or ESMS_ACCESS when the time ran out.
jint open_end(jint channel, jboolean for_write, jint timeout, const char *client) noexcept;

// A whole native that does not wait: the checks, then operation(q).
template <class Operation>
jint on_side(const Side &side, jint channel, Operation operation) noexcept {
    const CheckedChannel end = owned_channel(side, channel);
    return end.fault != ESMS_OK ? end.fault : operation(end.q);
}

// The same for a commit, behind which the other side is woken if it waits, whatever the result.
template <class Operation>
jint commit_on_side(const Side &side, jint channel, Operation operation) noexcept {
    return on_side(side, channel, [&](halvo_channel *q) {
        const jint result = operation(q);
        wake_waiting(side, q, channel);
        return result;
    });
}

// A part of a Java array, as the caller named it.
struct ArrayRange {
    jbyteArray array;
    jint offset;
    jint length;
};

// Whether a range that receives data lies in its array. A negative length passes: it limits
// nothing where lengths are compared unsigned, and the VM refuses what then does not fit.
bool has_room(JNIEnv *env, const ArrayRange &range) noexcept;

// The same for a range whose length must be one.
inline bool can_receive(JNIEnv *env, const ArrayRange &range) noexcept {
    return has_room(env, range) && range.length >= 0;
}

// A range that supplies data, copied into memory of the call.
class BytesIn {
public:
    // Kept: a range outside the array raises the VM's exception, and the call goes on with zeros.
    BytesIn(JNIEnv *env, const ArrayRange &range) noexcept;

    // ESMS_OK; ESMS_INVAL for no array or a negative length, ESMS_FAILED when there is no memory.
    jint fault() const noexcept { return fault_; }
    const void *data() const noexcept { return bytes_.get(); }
    uint32_t length() const noexcept { return length_; }

private:
    Block bytes_;
    uint32_t length_ = 0;
    jint fault_ = ESMS_OK;
};

// Copies at most range.length of `size` bytes to the range, the length compared unsigned. Returns
// the number of bytes; with less than 1 nothing is copied.
jint copy_out(JNIEnv *env, const ArrayRange &range, const void *from, uint32_t size) noexcept;

// Hands a message to Java: the whole slot when raw, else its body. Returns the message's length,
// also when less was copied; ESMS_INVAL when nothing was.
jint deliver(JNIEnv *env, const ArrayRange &range, const SlotImage &image, bool raw) noexcept;

// Record `index` of a table of counters. One more than the table has is a record too: it lies in
// the fields behind the table, which belong to the same header.
halvo_counter *counter_at(halvo_counter *table, jint index) noexcept;

} // namespace halvo
