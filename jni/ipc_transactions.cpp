// Java binding, IPCFunctions: marks, commits, rollbacks, buffers: one core call each, none waits.
#include "core/ring/read.h"
#include "jni/native.h"

using namespace halvo;

namespace {

constexpr jint kNoErrorText = -2; // kept: the result for a string that cannot be read

} // namespace

// ---- Writing

IPC_NATIVE(jint, writeMarkAt)
(JNIEnv *env, jclass, jint channel, jint type, jbyteArray data, jint offset, jint length,
 jint at) noexcept {
    return on_side(kWriter, channel, [=](halvo_channel *q) {
        const BytesIn bytes(env, {data, offset, length});
        if (bytes.fault() != ESMS_OK) return bytes.fault();
        return q_write_mark_at(q, type, bytes.data(), bytes.length(), static_cast<uint32_t>(at));
    });
}

IPC_NATIVE(jint, writeRollback)(JNIEnv *, jclass, jint channel) noexcept {
    return on_side(kWriter, channel, q_write_rollback);
}

IPC_NATIVE(jint, writeRollbackAll)(JNIEnv *, jclass, jint channel) noexcept {
    return on_side(kWriter, channel, q_write_rollback_all);
}

IPC_NATIVE(jint, writeCommit)(JNIEnv *, jclass, jint channel) noexcept {
    return commit_on_side(kWriter, channel, q_write_commit);
}

IPC_NATIVE(jint, writeCommitAll)(JNIEnv *, jclass, jint channel) noexcept {
    return commit_on_side(kWriter, channel, q_write_commit_all);
}

IPC_NATIVE(jint, writeBufRollback)(JNIEnv *, jclass, jint channel, jint index) noexcept {
    return on_side(kWriter, channel,
                   [=](halvo_channel *q) { return q_write_buf_rollback(q, index); });
}

// Kept: committing a parked message wakes no reader.
IPC_NATIVE(jint, writeBufCommit)(JNIEnv *, jclass, jint channel, jint index) noexcept {
    return on_side(kWriter, channel,
                   [=](halvo_channel *q) { return q_write_buf_commit(q, index); });
}

// ---- Reading

IPC_NATIVE(jint, readBufClear)(JNIEnv *, jclass, jint channel, jint index) noexcept {
    return on_side(kReader, channel, [=](halvo_channel *q) { return q_read_buf_clear(q, index); });
}

IPC_NATIVE(jint, readMarked)
(JNIEnv *env, jclass, jint channel, jint index, jbyteArray buf, jint offset, jint length,
 jboolean raw) noexcept {
    const ArrayRange range{buf, offset, length};
    if (!has_room(env, range)) return ESMS_INVAL;
    return on_side(kReader, channel, [=](halvo_channel *q) -> jint {
        const SlotImage image(q);
        if (!image) return ESMS_FAILED;
        const jint result = read_marked_image(q, image.get(), image.size(), index);
        return result != ESMS_OK ? result : deliver(env, range, image, raw);
    });
}

IPC_NATIVE(jint, readMarkedCount)(JNIEnv *, jclass, jint channel) noexcept {
    return on_side(kReader, channel, q_read_markedcount);
}

IPC_NATIVE(jint, readRollback)(JNIEnv *, jclass, jint channel) noexcept {
    return on_side(kReader, channel, q_read_rollback);
}

IPC_NATIVE(jint, readCommit)(JNIEnv *, jclass, jint channel, jint n, jboolean flagged) noexcept {
    return commit_on_side(kReader, channel,
                          [=](halvo_channel *q) { return q_read_commit(q, n, flagged ? n : 0); });
}

IPC_NATIVE(jint, readCommitWithError)
(JNIEnv *env, jclass, jint channel, jint n, jstring error) noexcept {
    StringChars code(env, error);
    if (!code) return kNoErrorText;
    if (!checked_channel(channel)) {
        code.keep(); // Kept: on this path the string is not given back.
        return ESMS_INVAL;
    }
    return commit_on_side(kReader, channel, [&](halvo_channel *q) {
        return q_read_commit_with_error(q, n, code.get());
    });
}
