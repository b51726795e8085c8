// Java binding: the shared steps of the natives.
#include "jni/native.h"

#include <algorithm>

#include "core/ring/end.h"

using namespace halvo;

jint JNU_ThrowByName(JNIEnv *env, const char *class_name, const char *message) noexcept {
    if (env->ExceptionCheck()) return JNI_ERR;
    const LocalClass type(env, class_name);
    return type.get() ? env->ThrowNew(type.get(), message) : JNI_ERR;
}

namespace halvo {

CheckedChannel owned_channel(const Side &side, jint channel) noexcept {
    halvo_channel *q = checked_channel(channel);
    if (!q) return {ESMS_INVAL, nullptr};
    if (!owns(side, q)) return {ESMS_ACCESS, nullptr};
    return {ESMS_OK, q};
}

jint open_end(jint channel, jboolean for_write, jint timeout, const char *client) noexcept {
    halvo_channel *q = q_open_wait(channel, mode_of(for_write), timeout);
    if (!q) return ESMS_ACCESS;
    record_owner(side_of(mode_of(for_write)), q, client);
    return ESMS_OK;
}

bool has_room(JNIEnv *env, const ArrayRange &range) noexcept {
    if (!range.array || range.offset < 0) return false;
    return int64_t{range.offset} + range.length <= env->GetArrayLength(range.array);
}

// A large one that is not in its array is zeros from the start: it may be of any length.
BytesIn::BytesIn(JNIEnv *env, const ArrayRange &range) noexcept
    : bytes_(range.length > 0 ? static_cast<size_t>(range.length) : 1,
             range.length > Block::kInside && !has_room(env, range)) {
    if (!range.array || range.length < 0) {
        fault_ = ESMS_INVAL;
        return;
    }
    length_ = static_cast<uint32_t>(range.length);
    if (!bytes_.get()) {
        fault_ = ESMS_FAILED;
        if (has_room(env, range)) return; // outside the array nothing is copied, but raised
    }
    env->GetByteArrayRegion(range.array, range.offset, range.length,
                            reinterpret_cast<jbyte *>(bytes_.get()));
    if (env->ExceptionCheck() && range.length <= Block::kInside)
        std::memset(bytes_.get(), 0, length_);
}

jint copy_out(JNIEnv *env, const ArrayRange &range, const void *from, uint32_t size) noexcept {
    const auto n = static_cast<jint>(std::min(size, static_cast<uint32_t>(range.length)));
    if (n > 0)
        env->SetByteArrayRegion(range.array, range.offset, n, static_cast<const jbyte *>(from));
    return n;
}

jint deliver(JNIEnv *env, const ArrayRange &range, const SlotImage &image, bool raw) noexcept {
    const qmsg *slot = image.get();
    const uint32_t length = body_length(image.size(), slot);
    const jint n =
        raw ? copy_out(env, range, slot, image.size()) : copy_out(env, range, body(slot), length);
    return n < 1 ? ESMS_INVAL : static_cast<jint>(length);
}

halvo_counter *counter_at(halvo_counter *table, jint index) noexcept {
    char *records = reinterpret_cast<char *>(table);
    return reinterpret_cast<halvo_counter *>(records + index * sizeof(halvo_counter));
}

} // namespace halvo
