// Java binding, IPCFunctions: looking at slots, buffers and heartbeats.

#include "core/base/process.h"
#include "core/ring/read.h"
#include "core/ring/write.h"
#include "jni/native.h"

using namespace halvo;

namespace {

enum StatusWord { kReadState = 0, kLastIn = 3, kLastOut = 4 }; // any other: the write state

// On a channel that is fed from a file queue, the processes of that queue have the heartbeats.
bool uses_file_queue(const halvo_channel *q) { return q->qtype == 'F'; }

halvo_i32 halvo_channel::*heartbeat_of(const Side &side, const halvo_channel *q) {
    return uses_file_queue(q) ? side.file_heartbeat : side.heartbeat;
}

} // namespace

IPC_NATIVE(jint, view)
(JNIEnv *env, jclass, jint channel, jbyteArray buf, jint offset, jint length, jint which) noexcept {
    const ArrayRange range{buf, offset, length};
    if (!has_room(env, range)) return ESMS_INVAL;
    const halvo_channel *q = checked_channel(channel);
    if (!q) return ESMS_INVAL;
    // Kept: a side other than 0 and 1 is the writer's, without the owner check.
    if (which == 0 && !owns(kReader, q)) return ESMS_ACCESS;
    if (which == 1 && !owns(kWriter, q)) return ESMS_ACCESS;
    const SlotImage image(q);
    if (!image) return ESMS_FAILED;
    const auto view = which == 0 ? read_view_image : write_view_image;
    const jint result = view(q, image.get(), image.size());
    if (result != ESMS_OK) return result;
    copy_out(env, range, image.get(), image.size());
    return ESMS_OK;
}

IPC_NATIVE(jint, stat)(JNIEnv *, jclass, jint channel, jint what) noexcept {
    const halvo_channel *q = checked_channel(channel);
    if (!q) return ESMS_INVAL;
    if (what == kLastIn) return load(q->lastin);
    if (what == kLastOut) return load(q->lastout);
    const qmsg *slot = ring_slot(q, load(what == kReadState ? q->rpos : q->wpos));
    return slot ? load_state(slot) : ESMS_INVAL;
}

IPC_NATIVE(jint, statBuf)(JNIEnv *, jclass, jint channel, jboolean for_write, jint index) noexcept {
    const halvo_channel *q = checked_channel(channel);
    // Kept: one index more than there are buffers is accepted.
    if (!q || index < 0 || index > HALVO_BUFFERS) return ESMS_INVAL;
    const qmsg *slot = buffer_slot(q, load(for_write ? q->wbufs : q->rbufs), index);
    return slot ? load_state(slot) : ESMS_INVAL;
}

IPC_NATIVE(jint, isAlive)
(JNIEnv *, jclass, jint channel, jint /*ignored*/, jint which, jint max_age) noexcept {
    const halvo_channel *q = checked_channel(channel);
    if (!q) return ESMS_INVAL;
    const auto stamp =
        static_cast<uint32_t>(load(q->*heartbeat_of(which == 1 ? kWriter : kReader, q)));
    return static_cast<int32_t>(q_gettime() - stamp) < max_age;
}

IPC_NATIVE(jint, touch)(JNIEnv *, jclass, jint channel, jint client, jboolean for_write) noexcept {
    halvo_channel *q = checked_channel(channel);
    if (!q) return ESMS_INVAL;
    const Side &side = side_of(mode_of(for_write));
    const auto pid = process_id();
    const auto now = static_cast<int32_t>(q_gettime());
    if (client >= 0 && client < HALVO_CLIENTS) {
        halvo_client &record = (q->*side.clients)[client];
        store(record.pid, pid);
        store(record.time, now);
    }
    // Kept: on an 'F' channel the caller becomes the holder, on any other it must be.
    if (uses_file_queue(q))
        store(q->*side.file_pid, pid);
    else if (!owns(side, q))
        return -1;
    store(q->*heartbeat_of(side, q), now);
    return now;
}
