// sms_fq: the write transactions.
//
//   fq_enqueue --> fq_enqueue_next ... --> fq_enqueue_commit | fq_enqueue_rollback
//   side locked, items written as 'W'      items 'F', position saved | nothing
//
// A transaction that dies before its commit leaves items that no reader takes and that the next
// writer removes.
#include <cstdio>
#include <cstring>

#include "fq/files/lock.h"
#include "fq/files/position.h"
#include "fq/transactions/channel_stats.h"
#include "fq/transactions/recovery.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

// Writes a transaction's first item with one of the item writers. The intended start of a queue
// whose position is lost stays as it is.
int write_first(int (*writer)(const char *, fqtrans *, const void *, unsigned), fqtrans *trans,
                bool made_first, const void *data, unsigned len) {
    if (!made_first && settle_writer(trans) < 0) return -1;
    return writer(trans->path, trans, data, len);
}

Saved save_writer_position(fqtrans *trans) {
    return save_position(trans, [](const fqtrans *t) {
        std::printf("fq_enqueue_away.truncate error %s\n", t->path);
    });
}

} // namespace

int fq_enqueue(int chnnl, const char *path, const void *data, unsigned len,
               fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!usable_item(path, data, len) || !trans) return ESMS_INVAL;
    ChannelStats(chnnl).writer_alive();
    begin_record(trans, path);
    bool made_first = false;
    const int locked = lock_side('w', trans, made_first);
    if (locked < 0) return locked;
    const int written = write_first(fq_write_item, trans, made_first, data, len);
    if (written < 0) {
        std::puts("fq_enqueue.fq_write_item error ");
        fq_unlock(trans);
    }
    return written;
}

int fq_enqueue_next(int chnnl, const void *data, unsigned len, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!holds_side(trans)) return ESMS_INVAL;
    ChannelStats(chnnl).writer_alive();
    std::memcpy(trans->curpos, trans->nextpos, kRecordSize);
    const int written = fq_write_item(trans->path, trans, data, len);
    if (written < 0) {
        std::puts("fq_enqueue.fq_write_item error ");
        fq_unlock(trans);
    }
    return written;
}

int fq_enqueue_commit(int chnnl, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    // Without the lock (the transaction ended with a failure) the items may be another writer's by
    // now: as for an empty transaction.
    if (trans && !holds_side(trans)) trans->count = 0;
    const int flipped = fq_write_item_commit(trans);
    if (!trans || flipped < 0) {
        fq_unlock(trans);
        return flipped;
    }
    const int saved = save_writer_position(trans).result;
    if (saved < 0) {
        std::puts("fq_enqueue_commit.fq_set_pos error ");
        fq_unlock(trans);
        return saved;
    }
    ChannelStats(chnnl).committed_writes(trans->count, trans->errcnt);
    return fq_unlock(trans);
}

int fq_enqueue_rollback(int, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    const int result = fq_unlock(trans);
    if (result < 0) std::puts("fq_enqueue_rollback.fq_unlock error ");
    return result;
}

// Kept: a failure to lock is answered with a positive number.
int fq_enqueue_away(int chnnl, int type, int success, const char *path, const void *data,
                    unsigned len) noexcept {
    const CancellationOff whole_call;
    if (!usable_item(path, data, len)) return ESMS_INVAL;
    fqtrans trans;
    begin_record(&trans, path);
    bool made_first = false;
    const int locked = lock_side('w', &trans, made_first);
    if (locked < 0) {
        std::puts("fq_enqueue_away.fq_lock error ");
        return -locked;
    }
    if (write_first(fq_write_item_once, &trans, made_first, data, len) < 0) {
        std::puts("fq_enqueue_away.fq_append_item error ");
        fq_unlock(&trans);
        return -1;
    }
    const Saved saved = save_writer_position(&trans);
    if (saved.result < 0) {
        // Kept: no line when the log was not full.
        if (saved.log_full) std::puts("fq_enqueue_away.fq_set_pos error ");
        fq_unlock(&trans);
        return saved.result;
    }
    ChannelStats(chnnl).single_write(type, success != 0);
    return fq_unlock(&trans);
}
