// Java binding, IPCFunctions: start, lookup, and opening and closing of channel ends.
#include "core/wait/wait_registry.h"
#include "jni/native.h"
#include "jni/wake.h"

using namespace halvo;

namespace {

// Results for a string that cannot be read. Kept: the numbers differ by native, and the codes that
// happen to have the same values have nothing to do with them.
constexpr jint kNoKeyFile = -1;
constexpr jint kNoName = -8;

} // namespace

IPC_NATIVE(jint, initialize)(JNIEnv *env, jclass, jstring key_file) noexcept {
    const StringChars path(env, key_file);
    if (!path) return kNoKeyFile;
    init_sig();
    return init_shm(path.get());
}

IPC_NATIVE(jint, initialized)(JNIEnv *, jclass) noexcept { return init_shm(nullptr) == ESMS_OK; }

IPC_NATIVE(jint, monitorTimeout)(JNIEnv *, jclass) noexcept {
    call_again();
    return monitor_pass();
}

IPC_NATIVE(jint, channelByName)(JNIEnv *env, jclass, jstring channel_name) noexcept {
    const StringChars name(env, channel_name);
    return name ? q_name2chnnl(name.get()) : kNoName;
}

IPC_NATIVE(jint, openChannel)
(JNIEnv *env, jclass, jstring client, jint channel, jboolean for_write, jint timeout) noexcept {
    const StringChars name(env, client);
    if (!name) return kNoName;
    if (!checked_channel(channel)) return ESMS_INVAL;
    return open_end(channel, for_write, timeout, name.get());
}

// Kept: whoever calls gives the end back; the owner is not looked at.
IPC_NATIVE(jint, closeChannel)(JNIEnv *, jclass, jint channel, jboolean for_write) noexcept {
    return q_close(channel, mode_of(for_write));
}
