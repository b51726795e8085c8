// sms_shmC: commits, rollbacks, marked reads and buffers: one core call each, none of them waits.
#include "core/wait/blocking.h"
#include "frx/guarded.h"

using namespace halvo;

namespace {

// A commit wakes the other side if it waits, whatever the core answered.
template <class Operation>
int32_t guarded_commit(const Side &side, FrxChannel *handle, Operation operation) {
    const CheckedEnd end = check_end(side, handle);
    if (end.fault != ESMS_OK) return end.fault;
    const Locked done = under_lock(handle, [&] { return operation(end.q); });
    if (done.fault == ESMS_OK) wake_waiting(side, end.q, handle->channel);
    return done.code();
}

} // namespace

int frx_readBufClear(FrxChannel *handle, int index) noexcept {
    return guarded(kReader, handle, true,
                   [=](halvo_channel *q) { return q_read_buf_clear(q, index); });
}

int frx_readMarked(FrxChannel *handle, int index, void *slot) noexcept {
    return guarded(kReader, handle, slot != nullptr,
                   [=](halvo_channel *q) { return q_read_markedmsg(q, index, slot); });
}

int frx_readMarkedCount(FrxChannel *handle) noexcept {
    return guarded(kReader, handle, true, q_read_markedcount);
}

int frx_readRollback(FrxChannel *handle) noexcept {
    return guarded(kReader, handle, true, q_read_rollback);
}

int frx_readCommit(FrxChannel *handle, int n) noexcept {
    return guarded_commit(kReader, handle,
                          [=](halvo_channel *q) { return q_read_commit(q, n, 0); });
}

int frx_writeCommit(FrxChannel *handle) noexcept {
    return guarded_commit(kWriter, handle, q_write_commit);
}

int frx_writeCommitAll(FrxChannel *handle) noexcept {
    return guarded_commit(kWriter, handle, q_write_commit_all);
}

int frx_writeRollback(FrxChannel *handle) noexcept {
    return guarded(kWriter, handle, true, q_write_rollback);
}

int frx_writeRollbackAll(FrxChannel *handle) noexcept {
    return guarded(kWriter, handle, true, q_write_rollback_all);
}

// Kept: committing a parked message wakes no reader.
int frx_writeBufCommit(FrxChannel *handle, int index) noexcept {
    return guarded(kWriter, handle, true,
                   [=](halvo_channel *q) { return q_write_buf_commit(q, index); });
}

int frx_writeBufRollback(FrxChannel *handle, int index) noexcept {
    return guarded(kWriter, handle, true,
                   [=](halvo_channel *q) { return q_write_buf_rollback(q, index); });
}
