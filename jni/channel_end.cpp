// Java binding, Channel: finding the segment, opening ends, and calling threads that wait.
#include <sys/ipc.h>
#include <sys/shm.h>

#include "core/segment/keys.h"
#include "jni/companion.h"
#include "jni/wake.h"

using namespace halvo;

namespace {

// Whether an attach would succeed now, which it may try once only, and find channels: they are
// counted last when a segment is made.
bool is_ready(int id) {
    shmid_ds found{};
    if (shmctl(id, IPC_STAT, &found) != 0 || found.shm_segsz < sizeof(halvo_segment)) return false;
    void *const address = shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void *>(-1)) return false; // NOLINT(performance-no-int-to-ptr)
    const bool ready = load(static_cast<halvo_segment *>(address)->nchnnl) != 0;
    shmdt(address);
    return ready;
}

} // namespace

// The id of the segment that belongs to a key file; ESMS_SHMOP when none can be attached to.
COMPANION_NATIVE(jint, ChannelCalls, segmentOf)(JNIEnv *env, jclass, jstring key_file) noexcept {
    const StringChars path(env, key_file);
    if (!path) return ESMS_INVAL;
    const key_t key = ftok(path.get(), kSegmentProject);
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    return id >= 0 && is_ready(id) ? id : ESMS_SHMOP;
}

// The id of the attached segment, or -1.
COMPANION_NATIVE(jint, ChannelCalls, attachedSegment)(JNIEnv *, jclass) noexcept {
    return attached_segment() ? attached_id : -1;
}

// As IPCFunctions.openChannel; ESMS_JAVAINTR when the cell was called before.
COMPANION_NATIVE(jint, ChannelCalls, open)
(JNIEnv *env, jclass, jobject cell, jstring client, jint channel, jboolean for_write,
 jint timeout) noexcept {
    const StringChars name(env, client);
    if (!name || !checked_channel(channel)) return ESMS_INVAL;
    const WakeableWait wait(cell_of(env, cell));
    if (!wait.may_wait()) return ESMS_JAVAINTR;
    return open_end(channel, for_write, timeout, name.get());
}

COMPANION_NATIVE(jint, ChannelCalls, recover)
(JNIEnv *, jclass, jint channel, jboolean for_write) noexcept {
    return q_recover(channel, mode_of(for_write));
}

// Copies the name of an end's last holder; returns its process id, 0 when there was none.
COMPANION_NATIVE(jint, ChannelCalls, holder)
(JNIEnv *env, jclass, jint channel, jboolean for_write, jbyteArray name) noexcept {
    const halvo_channel *q = checked_channel(channel);
    if (!q) return 0;
    const Side &side = side_of(mode_of(for_write));
    copy_out(env, {name, 0, HALVO_NAME_SIZE}, q->*side.name, HALVO_NAME_SIZE);
    return load(q->*side.pid);
}

COMPANION_NATIVE(void, ChannelCalls, wake)(JNIEnv *env, jclass, jobject cell) noexcept {
    call_cell(cell_of(env, cell));
}

COMPANION_NATIVE(void, ChannelCalls, rearm)(JNIEnv *env, jclass, jobject cell) noexcept {
    reset_cell(cell_of(env, cell));
}
