// Java binding, IPCFunctions: the file queue. An open transaction is a record on the heap, which
// Java holds as a handle; nothing here remembers it. Its side of the queue is locked until the
// transaction ends.
#include "halvo/fq.h"

#include "fq/files/format.h"
#include "jni/transaction.h"

using namespace halvo;

namespace {

constexpr jint kNoTransaction = -1; // readers' result for the handle 0; the writers' is ESMS_INVAL

void forget(fqtrans *trans) { Memory<fqtrans>(trans).reset(); }

// Room for an item of range.length bytes of data as it lies on disk.
Memory<char> item_buffer(const ArrayRange &range) {
    return zeroed<char>(static_cast<size_t>(range.length) + FQ_ITEM_EXTRA + 1);
}

unsigned capacity(const ArrayRange &range) { return static_cast<unsigned>(range.length); }

// Copies the data of the item that was read. False when the array took none of it.
bool hand_over(JNIEnv *env, const ArrayRange &range, const char *item, const fqtrans &trans) {
    const jint n =
        copy_out(env, range, item + fq::kHeaderSize, static_cast<uint32_t>(trans.itemlen));
    return n > 0 && !env->ExceptionCheck();
}

// Ends a write transaction by fq_enqueue_commit or fq_enqueue_rollback.
template <class End>
jint end_write(jint channel, jlong handle, End end) {
    fqtrans *trans = transaction_of(handle);
    if (!trans) return ESMS_INVAL;
    const jint result = end(channel, trans);
    forget(trans);
    return result;
}

// Ends a read transaction likewise. Kept: a failure answers 0 and keeps the record.
template <class End>
jint end_read(jint channel, jlong handle, End end) {
    fqtrans *trans = transaction_of(handle);
    if (!trans) return kNoTransaction;
    const jint result = end(channel, trans);
    if (result < 0) return 0;
    forget(trans);
    return result;
}

} // namespace

// ---- Writing

IPC_NATIVE(jint, writeFileQueue)
(JNIEnv *env, jclass, jint channel, jstring path, jint type, jbyteArray data, jint offset,
 jint length, jboolean error) noexcept {
    const StringChars queue(env, path);
    if (!queue) return kNoPath;
    const BytesIn bytes(env, {data, offset, length});
    if (bytes.fault() != ESMS_OK) return bytes.fault();
    return fq_enqueue_away(channel, type, error ? 0 : 1, queue.get(), bytes.data(), bytes.length());
}

// Kept: type and error flag are accepted and not used, here and in writeFileQueueBufNext.
IPC_NATIVE(jlong, writeFileQueueBuf)
(JNIEnv *env, jclass, jint channel, jstring path, jint /*type*/, jbyteArray data, jint offset,
 jint length, jboolean /*error*/) noexcept {
    const StringChars queue(env, path);
    if (!queue) return kNoPath;
    Memory<fqtrans> trans = new_transaction();
    if (!trans) return ESMS_FAILED;
    const BytesIn bytes(env, {data, offset, length});
    if (bytes.fault() != ESMS_OK) return bytes.fault();
    // A handle beside an exception would not reach Java, and the side would stay locked for good.
    if (env->ExceptionCheck()) return ESMS_INVAL;
    const jint result = fq_enqueue(channel, queue.get(), bytes.data(), bytes.length(), trans.get());
    return result < 0 ? result : handle_of(trans.release());
}

// A failure ends the transaction; its record waits for the commit or rollback all the same.
IPC_NATIVE(jint, writeFileQueueBufNext)
(JNIEnv *env, jclass, jint channel, jlong handle, jint /*type*/, jbyteArray data, jint offset,
 jint length, jboolean /*error*/) noexcept {
    fqtrans *trans = transaction_of(handle);
    if (!trans) return ESMS_INVAL;
    const BytesIn bytes(env, {data, offset, length});
    if (bytes.fault() != ESMS_OK) return bytes.fault();
    return fq_enqueue_next(channel, bytes.data(), bytes.length(), trans);
}

IPC_NATIVE(jint, writeFileQueueBufCommit)(JNIEnv *, jclass, jint channel, jlong handle) noexcept {
    return end_write(channel, handle, fq_enqueue_commit);
}

IPC_NATIVE(jint, writeFileQueueBufRollback)(JNIEnv *, jclass, jint channel, jlong handle) noexcept {
    return end_write(channel, handle, fq_enqueue_rollback);
}

// ---- Reading

// Kept: whatever kept an item from being read, the answer is 0.
IPC_NATIVE(jlong, readFileQueue)
(JNIEnv *env, jclass, jint channel, jstring path, jbyteArray buffer, jint offset,
 jint length) noexcept {
    const StringChars queue(env, path);
    if (!queue) return kNoPath;
    const ArrayRange range{buffer, offset, length};
    if (!can_receive(env, range)) return 0;
    Memory<fqtrans> trans = new_transaction();
    const Memory<char> item = item_buffer(range);
    if (!trans || !item) return 0;
    if (fq_dequeue(channel, queue.get(), item.get(), capacity(range), trans.get()) <= 0) return 0;
    if (hand_over(env, range, item.get(), *trans)) return handle_of(trans.release());
    fq_dequeue_rollback(channel, trans.get()); // or the side would stay locked without a handle
    return 0;
}

IPC_NATIVE(jlong, readFileQueueNext)
(JNIEnv *env, jclass, jint channel, jstring path, jlong handle, jbyteArray buffer, jint offset,
 jint length) noexcept {
    const StringChars queue(env, path);
    if (!queue) return kNoPath;
    const ArrayRange range{buffer, offset, length};
    fqtrans *trans = transaction_of(handle);
    if (!trans || !can_receive(env, range)) return 0;
    const Memory<char> item = item_buffer(range);
    if (!item) return 0;
    if (fq_dequeue_next(channel, queue.get(), trans, item.get(), capacity(range)) < 1) return 0;
    hand_over(env, range, item.get(), *trans);
    return 1;
}

IPC_NATIVE(jint, readFileQueueBytes)(JNIEnv *, jclass, jlong handle) noexcept {
    const fqtrans *trans = transaction_of(handle);
    return trans ? trans->itemlen : -1;
}

IPC_NATIVE(jint, readFileQueueCommit)
(JNIEnv *, jclass, jint channel, jlong handle, jint errors) noexcept {
    return end_read(channel, handle, [=](jint chnnl, fqtrans *trans) {
        trans->errcnt = errors;
        return fq_dequeue_commit(chnnl, trans);
    });
}

IPC_NATIVE(jint, readFileQueueRollback)(JNIEnv *, jclass, jint channel, jlong handle) noexcept {
    return end_read(channel, handle, fq_dequeue_rollback);
}
