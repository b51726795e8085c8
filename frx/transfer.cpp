// sms_shmC: the seven calls that wait and copy.
#include <cstring>

#include "core/ring/end.h"
#include "frx/waits.h"

using namespace halvo;

namespace {

// frx_read and frx_readBuf: one message into the caller's slot. Returns its length.
template <class Operation>
int32_t read_one(FrxChannel *handle, void *slot, int timeout, Operation operation) {
    return when_read(handle, slot != nullptr, timeout, operation, [&](halvo_channel *q) {
        finish_transfer(kReader, q, handle->channel);
        qmsg header; // the caller's slot may lie anywhere
        std::memcpy(&header, slot, sizeof header);
        return static_cast<int32_t>(body_length(slot_size(q), &header));
    });
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

int frx_write(FrxChannel *handle, int type, const void *data, uint32_t length, int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    const Written written =
        write_one(handle, end.q, timeout, "snd error ....",
                  [=](halvo_channel *q) { return q_write(q, type, data, length); });
    return finish_write(handle, end.q, written);
}

// Kept: a mark neither ends the announcement of waiting writers nor wakes the reader.
int frx_writeMark(FrxChannel *handle, int type, const void *data, uint32_t length, int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    return code_of(write_one(handle, end.q, timeout, "snd error .....", [=](halvo_channel *q) {
        return q_write_mark(q, type, data, length);
    }));
}

// Wakes nobody either: the batch appears with its commit.
int frx_writeMarkAt(FrxChannel *handle, int type, const void *data, uint32_t length, int index,
                    int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, data != nullptr && index >= 0);
    if (end.fault != ESMS_OK) return end.fault;
    return code_of(write_one(handle, end.q, timeout, "snd error .....", [=](halvo_channel *q) {
        return q_write_mark_at(q, type, data, length, static_cast<uint32_t>(index));
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
