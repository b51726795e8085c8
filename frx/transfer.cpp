// sms_shmC: the six calls that wait. The lock is held around each core call and never during a
// wait, so that other threads of the end go on meanwhile.
#include <cstring>

#include "core/blocking.h"
#include "core/end.h"
#include "frx/guarded.h"

using namespace halvo;

namespace {

// frx_read and frx_readBuf: one message into the caller's slot. Returns its length.
template <class Operation>
int32_t read_one(FrxChannel *handle, void *slot, int timeout, Operation operation) {
    const CheckedEnd end = check_end(kReader, handle, slot != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    Locked last;
    const Wait wait = wait_until({kReader, end.q, handle->channel, timeout}, [&] {
        last = under_lock(handle, [&] { return operation(end.q); });
        return last.fault != ESMS_OK || last.result != ESMS_EMPTY;
    });
    if (wait != Wait::settled) return code_of(wait);
    if (last.fault != ESMS_OK) return last.fault;
    if (last.result != ESMS_OK) return ESMS_FAILED; // the core's code is not passed on
    finish_transfer(kReader, end.q, handle->channel);
    qmsg header; // the caller's slot may lie anywhere
    std::memcpy(&header, slot, sizeof header);
    return static_cast<int32_t>(body_length(slot_size(end.q), &header));
}

// The three writers: the operation's result, after waiting for room. `message` goes before the
// code's name when the ring refuses.
struct Written {
    Wait wait = Wait::settled;
    Locked last;
};

template <class Operation>
Written write_one(FrxChannel *handle, halvo_channel *q, int timeout, const char *message,
                  Operation operation) {
    Written written;
    Locked &last = written.last;
    written.wait = wait_until({kWriter, q, handle->channel, timeout}, [&] {
        last = under_lock(handle, [&] { return operation(q); });
        return last.fault != ESMS_OK || last.result != ESMS_FULL || timeout < 0;
    });
    const bool refused = written.wait == Wait::settled && last.fault == ESMS_OK &&
                         last.result < 0 && last.result != ESMS_FULL;
    if (refused) printr(message, last.result);
    return written;
}

int32_t code_of(const Written &written) {
    return written.wait == Wait::settled ? written.last.code() : code_of(written.wait);
}

// Ends the wait of this side and wakes the reader, after a message has gone in.
int32_t finish_write(FrxChannel *handle, halvo_channel *q, const Written &written) {
    const int32_t code = code_of(written);
    if (code == ESMS_OK) finish_transfer(kWriter, q, handle->channel);
    return code;
}

} // namespace

int frx_read(FrxChannel *handle, void *slot, int timeout) {
    return read_one(handle, slot, timeout, [=](halvo_channel *q) { return q_read(q, slot); });
}

int frx_readBuf(FrxChannel *handle, void *slot, int timeout, int index) {
    return read_one(handle, slot, timeout,
                    [=](halvo_channel *q) { return q_read_buf(q, slot, index); });
}

int frx_readMark(FrxChannel *handle, int n, int timeout) {
    const CheckedEnd end = check_end(kReader, handle);
    if (end.fault != ESMS_OK) return end.fault;
    Locked last;
    const Wait wait = wait_until({kReader, end.q, handle->channel, timeout}, [&] {
        last = under_lock(handle, [&] { return q_read_mark(end.q, n); });
        return last.fault != ESMS_OK || last.result != 0;
    });
    // Kept: a wait that timed out answers 0, as if nothing had been there to mark.
    if (wait == Wait::timed_out) return 0;
    return wait == Wait::settled ? last.code() : code_of(wait);
}

int frx_write(FrxChannel *handle, int type, const void *data, uint32_t length,
              int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    const Written written =
        write_one(handle, end.q, timeout, "snd error ....",
                  [=](halvo_channel *q) { return q_write(q, type, data, length); });
    return finish_write(handle, end.q, written);
}

// Kept: a mark neither ends the announcement of waiting writers nor wakes the reader.
int frx_writeMark(FrxChannel *handle, int type, const void *data, uint32_t length,
                  int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    return code_of(write_one(handle, end.q, timeout, "snd error .....", [=](halvo_channel *q) {
        return q_write_mark(q, type, data, length);
    }));
}

int frx_writeBuf(FrxChannel *handle, int type, const void *data, uint32_t length, int index,
                 int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    const Written written =
        write_one(handle, end.q, timeout, "frx_writeBuf snd error .....",
                  [=](halvo_channel *q) { return q_write_buf(q, type, data, length, index); });
    // Kept: here a lock that cannot be taken is ESMS_MTXUNLOCK.
    if (written.wait == Wait::settled && written.last.fault == ESMS_MTXLOCK) return ESMS_MTXUNLOCK;
    return finish_write(handle, end.q, written);
}
