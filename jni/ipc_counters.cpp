// Java binding, IPCFunctions: sizes, counts and the snapshot file, by channel number. No owner is
// checked; counts are 64-bit, and so are the codes among them.
#include "core/segment/rules.h"
#include "jni/native.h"

using namespace halvo;

namespace {

constexpr jint kAllTypes = -2; // resetPCountFor: every type

// What value(q) says of a known channel.
template <class Result, class Value>
Result of_channel(jint channel, Value value) {
    halvo_channel *q = checked_channel(channel);
    return q ? static_cast<Result>(value(q)) : Result{ESMS_INVAL};
}

// Seconds since a message was last taken, on the cached clock.
int32_t idle_seconds(const halvo_channel *q) {
    return static_cast<int32_t>(q_gettime() - static_cast<uint32_t>(load(q->lastout)));
}

} // namespace

IPC_NATIVE(jint, sizeOfBlock)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jint>(channel, [](const halvo_channel *q) { return slot_size(q); });
}

IPC_NATIVE(jint, countOfBlocks)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jint>(channel, [](const halvo_channel *q) { return q->qcnt - 2; });
}

IPC_NATIVE(jint, sizeOfData)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jint>(channel,
                            [](const halvo_channel *q) { return slot_size(q) - sizeof(qmsg); });
}

// Kept: the file queue counts on every channel; on 'F' channels the ring does not.
IPC_NATIVE(jlong, getCount)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jlong>(channel, [](const halvo_channel *q) {
        return q->qtype == 'F' ? backlog(q->fpcnt, q->fgcnt) : q_getcount(q);
    });
}

IPC_NATIVE(jlong, gcount)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jlong>(channel, [](const halvo_channel *q) { return q->gcnt.count; });
}

IPC_NATIVE(jlong, pcount)(JNIEnv *, jclass, jint channel) noexcept {
    return of_channel<jlong>(channel, [](const halvo_channel *q) { return q->pcnt.count; });
}

// Kept: numbers up to 4096 are types, greater ones seconds of a stall; a channel that is not
// stalled although messages wait answers ESMS_INVAL. The type 4096 is accepted; what lies behind
// the table is read as its count.
IPC_NATIVE(jlong, pcountFor)(JNIEnv *, jclass, jint channel, jint type_or_seconds) noexcept {
    return of_channel<jlong>(channel, [=](halvo_channel *q) -> jlong {
        if (type_or_seconds > HALVO_TYPES) {
            const jlong backlog = q_getcount(q);
            if (backlog <= 0) return 0;
            return idle_seconds(q) > type_or_seconds ? backlog : jlong{ESMS_INVAL};
        }
        if (type_or_seconds < 0) return ESMS_INVAL;
        return static_cast<jlong>(counter_at(q->tcnt, type_or_seconds)->count);
    });
}

IPC_NATIVE(jlong, ratio)(JNIEnv *, jclass, jint channel, jint type) noexcept {
    return of_channel<jlong>(channel, [=](const halvo_channel *q) -> jlong {
        return is_type(type) ? load(q->tcnt[type].ratio) : ESMS_INVAL;
    });
}

IPC_NATIVE(jlong, resetPCountFor)(JNIEnv *, jclass, jint channel, jint type) noexcept {
    return of_channel<jlong>(channel, [=](halvo_channel *q) -> jlong {
        if (type == kAllTypes) {
            for (halvo_counter &counter : q->tcnt) counter.count = 0;
            return 0;
        }
        if (!is_type(type)) return ESMS_INVAL;
        const jlong before = q_pcount_per_type(q, type);
        q->tcnt[type].count = 0;
        return before;
    });
}

// Kept: the path is not given back when nothing is attached, and the file is created empty: there
// is no image to write.
IPC_NATIVE(jint, saveSnapshot)(JNIEnv *env, jclass, jstring file) noexcept {
    StringChars path(env, file);
    if (!path) return kNoPath;
    if (!q_0()) {
        path.keep();
        return ESMS_NOINIT;
    }
    return q_save_snapshot(nullptr, 0, path.get());
}
