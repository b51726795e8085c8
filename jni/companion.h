// Java binding: what the natives of the companion classes share. They answer with codes alone and
// raise nothing but what the VM raises itself.
#pragma once

#include "jni/native.h"

#define COMPANION_NATIVE(type, class_name, name)                                                   \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_##class_name##_##name

namespace halvo {

// Bytes of a Java array that stay where they are while the object lives. Meanwhile the VM may hold
// other threads back: no waiting, no call into the VM.
class PinnedBytes {
public:
    PinnedBytes(JNIEnv *env, jbyteArray array, jint release_mode) noexcept
        : env_(env), array_(array), release_mode_(release_mode),
          bytes_(static_cast<char *>(env->GetPrimitiveArrayCritical(array, nullptr))) {}
    ~PinnedBytes() {
        if (bytes_) env_->ReleasePrimitiveArrayCritical(array_, bytes_, release_mode_);
    }
    PinnedBytes(const PinnedBytes &) = delete;
    PinnedBytes &operator=(const PinnedBytes &) = delete;
    char *get() const noexcept { return bytes_; } // null: there is no memory

private:
    JNIEnv *env_;
    jbyteArray array_;
    jint release_mode_;
    char *bytes_;
};

} // namespace halvo
