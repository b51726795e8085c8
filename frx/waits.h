// sms_shmC: what the calls that wait have in common. The lock is held around each core call and never
// during a wait, so that other threads of the end go on meanwhile.
#pragma once

#include "core/wait/blocking.h"
#include "frx/guarded.h"

namespace halvo {

// A read that waits for a message: the operation is tried until it finds one, and then done(q) gives
// the result. What else the core answers is ESMS_FAILED.
template <class Operation, class Done>
int32_t when_read(FrxChannel *handle, bool arguments_ok, int timeout, Operation operation,
                  Done done) {
    const CheckedEnd end = check_end(kReader, handle, arguments_ok);
    if (end.fault != ESMS_OK) return end.fault;
    Locked last;
    const Wait wait = wait_until({kReader, end.q, handle->channel, timeout}, [&] {
        last = under_lock(handle, [&] { return operation(end.q); });
        return last.fault != ESMS_OK || last.result != ESMS_EMPTY;
    });
    if (wait != Wait::settled) return code_of(wait);
    if (last.fault != ESMS_OK) return last.fault;
    if (last.result == ESMS_EXEED) return ESMS_EXEED; // longer than the caller's room
    if (last.result != ESMS_OK) return ESMS_FAILED;   // the core's code is not passed on
    return done(end.q);
}

// What came of a write.
struct Written {
    Wait wait = Wait::settled;
    Locked last;
};

// A write that waits for room: the operation is tried until there is some, once with a timeout below 0.
// `message` goes before the code's name when the ring refuses.
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

inline int32_t code_of(const Written &written) {
    return written.wait == Wait::settled ? written.last.code() : code_of(written.wait);
}

// Ends the wait of this side and wakes the reader, after a message has gone in.
inline int32_t finish_write(FrxChannel *handle, halvo_channel *q, const Written &written) {
    const int32_t code = code_of(written);
    if (code == ESMS_OK) finish_transfer(kWriter, q, handle->channel);
    return code;
}

} // namespace halvo
