// sms_fq: the read transactions.
//
//   fq_dequeue --> fq_dequeue_next ... --> fq_dequeue_commit | fq_dequeue_rollback
//   side locked, items read                position saved    | the same items are read again
//
// The position is saved before a finished data file is deleted: a reader that dies in between
// leaves a file that nobody needs, and never a position in a file that is gone.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "fq/files/durable.h"
#include "fq/files/lock.h"
#include "fq/files/open_files.h"
#include "fq/files/position.h"
#include "fq/files/readable_items.h"
#include "fq/transactions/channel_stats.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

// Reads one item and counts it. As fq_read_item, with a line for a failure.
int read_counted(const char *path, fqtrans *trans, void *buf, unsigned cap) {
    const int result = fq_read_item(path, trans, buf, cap);
    if (result == kIncomplete) return 0;
    if (result < 0) std::puts("fq_dequeue.fq_read_item error ");
    if (result > 0) ++trans->count;
    return result;
}

// Whether the reader's queue is still the one of its name. A transaction may last: the queue may have
// been moved away, and another one begun under the same name, whose file nobody has read.
bool is_still_named(OpenSide *side) {
    side->names.ask(side->directory());
    return side->lock.is_named(side->directory(), side->lock_name, side->names, false);
}

// Deletes the file in which the transaction began when it ended in another one. Whether it did.
// Kept: only that one, however many files the transaction passed through.
bool delete_finished_file(const fqtrans *trans) {
    if (std::memcmp(trans->startpos + kOrderAt, trans->nextpos + kOrderAt, kNumberWidth) == 0)
        return false;
    const Position began = position_in(trans->startpos);
    if (!began.valid()) return false;
    OpenSide *side = running_side(trans);
    const FileName name = data_file(trans->path, began.order);
    if ((side && !is_still_named(side)) ||
        unlinkat(side ? side->directory() : AT_FDCWD, name.text, 0) != 0) {
        std::printf("fq_dequeue.unlink error %s\n", name.text);
        return false;
    }
    return !side || sync_names(side->directory(), trans->path);
}

// Whether the writer has saved a position that is not before one: what stands before it, it has
// forced.
bool writer_is_past(const OpenSide *side, const fqtrans *trans, const Position &at) {
    bool known = false;
    const Position writer = saved_position(side->directory(), tail_file(trans->path), known);
    return writer.valid() && (comes_after(at.order, writer.order) ||
                              (writer.order == at.order && writer.offset >= at.offset));
}

// A durable reader's position is saved only behind items that are on the disk.
bool force_what_was_read(const fqtrans *trans) {
    const OpenSide *side = running_side(trans);
    if (!side || !is_durable()) return true;
    return writer_is_past(side, trans, position_in(trans->nextpos)) || !side->data ||
           sync_file(side->data.get());
}

// Whether a reader has read a data file from a place to its end. One that is stuck at damage is sent on
// by hand: what it has not read may still be wanted.
bool leads_to_the_end(const OpenSide *side, const FileName &name, Position at) {
    const Descriptor file = open_queue_file(side->directory(), name, O_RDONLY);
    const int64_t size = file ? state_of(file.get()).size : -1;
    return pass_readable_items(file.get(), size, at.offset) == Behind::end;
}

// Removes the file that a reader has left and, because it died, not deleted: the one that the log
// names before the file where the reader is now. Nothing that may still be wanted: both sides must
// be behind it.
void delete_left_file(const fqtrans *trans) {
    const OpenSide *side = running_side(trans);
    const Position at = position_in(trans->startpos);
    if (!side || !side->left.valid() || !comes_after(side->left.order, at.order)) return;
    const FileName name = data_file(trans->path, side->left.order);
    if (!state_of(side->directory(), name.text).found) return;
    if (writer_is_past(side, trans, {next_order_of_commit(side->left.order), 0}) &&
        leads_to_the_end(side, name, side->left))
        unlinkat(side->directory(), name.text, 0);
}

} // namespace

int fq_dequeue(int chnnl, const char *path, void *buf, unsigned cap, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!usable_path(path) || !buf || !trans) return ESMS_INVAL;
    ChannelStats stats(chnnl);
    stats.reader_alive();
    if (stats.read_refused()) return ESMS_EMPTY;
    begin_record(trans, path);
    const int locked = fq_lock('r', trans);
    if (locked < 0) return locked;
    delete_left_file(trans);
    const int result = read_counted(trans->path, trans, buf, cap);
    if (result <= 0) fq_unlock(trans);
    return result;
}

int fq_dequeue_next(int chnnl, const char *path, fqtrans *trans, void *buf, unsigned cap) noexcept {
    const CancellationOff whole_call;
    ChannelStats(chnnl).reader_alive();
    if (!trans || !buf || !usable_path(path)) return ESMS_INVAL;
    std::memcpy(trans->curpos, trans->nextpos, kRecordSize);
    return read_counted(path, trans, buf, cap);
}

int fq_dequeue_commit(int chnnl, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!trans) {
        std::puts("fq_dequeue_commit NULL trans.");
        return -1;
    }
    if (trans->count == 0 || !holds_side(trans)) {
        fq_unlock(trans);
        std::puts("fq_dequeue_commit on no data.");
        return -1;
    }
    if (!force_what_was_read(trans)) {
        fq_unlock(trans);
        return -1;
    }
    const Saved saved =
        save_position(trans, [](const fqtrans *) { std::puts("fq_dequeue_commit.unlink error "); });
    // Kept: a position that was not saved is not reported, and the commit goes on.
    if (saved.result < 0) std::puts("fq_dequeue_commit.fq_set_pos error ");
    if (!sync_file(trans->posfd)) {
        fq_unlock(trans);
        return -1;
    }
    if (delete_finished_file(trans) && saved.begun_again) keep_last_record(trans);
    ChannelStats(chnnl).committed_reads(trans->count, trans->errcnt);
    const int result = fq_unlock(trans);
    if (result < 0) std::puts("fq_dequeue_commit.fq_unlock error ");
    return result;
}

int fq_dequeue_rollback(int, fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!trans) {
        std::puts("fq_dequeue_commit NULL trans.");
        return -1;
    }
    return fq_unlock(trans);
}
