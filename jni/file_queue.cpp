// Java binding, FileQueue: transactions that answer with the file queue's own codes. The handle of an
// open transaction is the address of its record, which belongs to Java until the transaction's end.
#include "halvo/fq.h"

#include <sys/stat.h>

#include "fq/files/format.h"
#include "jni/companion.h"
#include "jni/transaction.h"

using namespace halvo;

namespace {

// Plus what fq_lock answered: other failures have the same numbers.
constexpr jint kLockFailure = -20;

// Which lock file it is. The library's key of it may be another one's too, which a thread may hold
// beside it.
jlong number_of(const struct stat &lock_file) {
    return static_cast<jlong>(uint64_t{lock_file.st_ino} * 0x9e3779b97f4a7c15U ^ lock_file.st_dev);
}

// What Java keeps of a transaction: handle, 0 for none, and the number of the lock that it holds.
class Transaction {
public:
    Transaction(JNIEnv *env, jlongArray words) noexcept : env_(env), words_(words) {}

    fqtrans *record() const noexcept {
        jlong handle = 0;
        env_->GetLongArrayRegion(words_, 0, 1, &handle);
        return transaction_of(handle);
    }
    void begin(Memory<fqtrans> record) const noexcept {
        struct stat lock_file {};
        fstat(record->lockfd, &lock_file);
        const jlong words[] = {handle_of(record.get()), number_of(lock_file)};
        static_cast<void>(record.release()); // it is Java's now
        env_->SetLongArrayRegion(words_, 0, 2, words);
    }
    void end() const noexcept {
        const jlong none = 0;
        env_->SetLongArrayRegion(words_, 0, 1, &none);
    }

private:
    JNIEnv *env_;
    jlongArray words_;
};

// A failure to begin: one to lock leaves the record without a mutex.
jint begin_failure(jint result, const fqtrans &record) {
    return result < 0 && record.path[0] != '\0' && !record.mtx ? kLockFailure + result : result;
}

// Whether all of an item is there that is longer than its reader's buffer. What a damaged header claims
// would take all memory: without it, as for every incomplete item, there is nothing to read.
bool is_whole(const char *queue, const fqtrans &record, const char *item) {
    fq::ItemHeader header;
    std::memcpy(&header, item, fq::kHeaderSize);
    const fq::Position at = fq::position_in(record.curpos);
    struct stat file {};
    return stat(fq::data_file(queue, at.order).text, &file) == 0 &&
           file.st_size >= at.offset + fq::size_of_item(header);
}

// Ends a transaction by end(record), unless a failure has ended it already; its record goes.
template <class End>
jint end_by(JNIEnv *env, jlongArray words, End end) {
    const Transaction transaction(env, words);
    const Memory<fqtrans> record(transaction.record());
    transaction.end();
    return record && record->lockfd > 0 ? end(record.get()) : ESMS_OK;
}

} // namespace

// Begins a write transaction with its first item, or adds one. Above 0, or the failure; one to add
// ends the transaction, whose record then waits for endWrite.
COMPANION_NATIVE(jint, FileQueueCalls, add)
(JNIEnv *env, jclass, jint channel, jstring path, jlongArray words, jbyteArray data, jint offset,
 jint length) noexcept {
    const Transaction transaction(env, words);
    const BytesIn bytes(env, {data, offset, length});
    if (bytes.fault() != ESMS_OK) return bytes.fault();
    if (fqtrans *record = transaction.record())
        return fq_enqueue_next(channel, bytes.data(), bytes.length(), record);
    const StringChars queue(env, path);
    Memory<fqtrans> record = new_transaction();
    if (!queue || !record) return ESMS_FAILED;
    const jint result =
        fq_enqueue(channel, queue.get(), bytes.data(), bytes.length(), record.get());
    if (result < 0) return begin_failure(result, *record);
    transaction.begin(std::move(record));
    return result;
}

COMPANION_NATIVE(jint, FileQueueCalls, endWrite)
(JNIEnv *env, jclass, jint channel, jlongArray words, jboolean commit) noexcept {
    return end_by(env, words, [=](fqtrans *record) {
        return commit ? fq_enqueue_commit(channel, record) : fq_enqueue_rollback(channel, record);
    });
}

// Reads an item, the first of a transaction or the next. Returns its length; 0 when there is none, or
// the channel's read rate is above its limit; or the failure.
COMPANION_NATIVE(jint, FileQueueCalls, take)
(JNIEnv *env, jclass, jint channel, jstring path, jlongArray words, jbyteArray buffer) noexcept {
    const Transaction transaction(env, words);
    const StringChars queue(env, path);
    const jint room = env->GetArrayLength(buffer);
    const Block item(static_cast<size_t>(room) + FQ_ITEM_EXTRA + 1);
    if (!queue || !item.get()) return ESMS_FAILED;
    fqtrans *open = transaction.record();
    Memory<fqtrans> made;
    if (!open && !(made = new_transaction())) return ESMS_FAILED;
    fqtrans *record = open ? open : made.get();
    const auto capacity = static_cast<unsigned>(room);
    const jint result = open ? fq_dequeue_next(channel, queue.get(), open, item.get(), capacity)
                             : fq_dequeue(channel, queue.get(), item.get(), capacity, record);
    if (result <= 0) {
        if (result == ESMS_EMPTY && (open || record->path[0] == '\0')) return 0;
        const jint failure = open ? result : begin_failure(result, *record);
        return failure == fq::kTooLarge && !is_whole(queue.get(), *record, item.get()) ? 0
                                                                                       : failure;
    }
    const jint length = record->itemlen;
    copy_out(env, {buffer, 0, room}, item.get() + fq::kHeaderSize, static_cast<uint32_t>(length));
    if (made) transaction.begin(std::move(made));
    return length;
}

COMPANION_NATIVE(jint, FileQueueCalls, endRead)
(JNIEnv *env, jclass, jint channel, jlongArray words, jint errors, jboolean commit) noexcept {
    return end_by(env, words, [=](fqtrans *record) {
        record->errcnt = errors;
        return commit ? fq_dequeue_commit(channel, record) : fq_dequeue_rollback(channel, record);
    });
}

// The number of a side's lock as it is now; 0 when there is none. A thread that holds it must not take
// it again.
COMPANION_NATIVE(jlong, FileQueueCalls, lockNumber)
(JNIEnv *env, jclass, jstring path, jboolean for_write) noexcept {
    const StringChars queue(env, path);
    if (!queue || !fq::usable_path(queue.get())) return 0;
    struct stat lock_file {};
    const fq::FileName name = fq::lock_file(queue.get(), mode_of(for_write));
    return stat(name.text, &lock_file) == 0 ? number_of(lock_file) : 0;
}

// What the transactions of this process promise from now on.
COMPANION_NATIVE(jint, FileQueueCalls, setDurable)(JNIEnv *, jclass, jboolean durable) noexcept {
    return fq_set_durability(durable ? FQ_DURABILITY_COMMIT : FQ_DURABILITY_NONE);
}
