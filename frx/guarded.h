// sms_shmC: what every operation on an open end goes through: the handle, the owner, the lock.
#pragma once

#include "core/ring/end.h"
#include "core/ring/side.h"
#include "frx/ends.h"

namespace halvo {

// An end that passed the checks, or the code to return at once.
struct CheckedEnd {
    int32_t fault;
    halvo_channel *q;
};

// arguments_ok: whether the call's arguments can be used. `side` is the side that the operation
// belongs to; the lock is that of the handle's own side.
inline CheckedEnd check_end(const Side &side, const FrxChannel *handle,
                            bool arguments_ok = true) noexcept {
    if (!is_open(handle)) return {ESMS_ACCESS, nullptr};
    if (!arguments_ok) return {ESMS_INVAL, nullptr};
    halvo_channel *q = checked_channel(handle->channel); // in the table of ends, or not valid
    if (!q) return {ESMS_INVAL, nullptr};
    if (!owns(side, q)) return {ESMS_ACCESS, nullptr};
    return {ESMS_OK, q};
}

// What came of an operation under the lock: its result, or the fault of the lock itself.
struct Locked {
    int32_t fault = ESMS_OK;
    int32_t result = ESMS_OK;
    int32_t code() const { return fault != ESMS_OK ? fault : result; }
};

// Runs the operation under the lock of the handle's end.
template <class Operation>
Locked under_lock(FrxChannel *handle, Operation operation) noexcept {
    if (!in_table(handle->channel)) return {ESMS_MTXLOCK, 0};
    const OpenEnd end = open_end(handle->channel, handle->side);
    EndLock::Place *const own = end.lock.enter();
    if (!own && end.lock.take(end.mutex) != 0) return {ESMS_MTXLOCK, 0};
    const int32_t result = operation();
    if (own)
        own->leave();
    else if (end.lock.give_back(end.mutex) != 0)
        return {ESMS_MTXUNLOCK, 0};
    return {ESMS_OK, result};
}

// A whole operation that does not wait: checks, then the core call under the lock.
template <class Operation>
int32_t guarded(const Side &side, FrxChannel *handle, bool arguments_ok,
                Operation operation) noexcept {
    const CheckedEnd end = check_end(side, handle, arguments_ok);
    if (end.fault != ESMS_OK) return end.fault;
    return under_lock(handle, [&] { return operation(end.q); }).code();
}

} // namespace halvo
