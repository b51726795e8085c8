// sms_shmC: messages without a copy, bodies alone, and many at a time.
#include "frx/waits.h"

using namespace halvo;

int frx_peek(FrxChannel *handle, const qmsg **slot, int timeout) {
    return when_read(
        handle, slot != nullptr, timeout, [=](halvo_channel *q) { return q_peek(q, slot); },
        [&](halvo_channel *q) {
            refresh(q->*kReader.waiting, 0);
            return static_cast<int32_t>(body_length(slot_size(q), *slot));
        });
}

int frx_peekMarked(FrxChannel *handle, int index, const qmsg **slot) noexcept {
    return guarded(kReader, handle, slot != nullptr, [=](halvo_channel *q) {
        const int result = q_peek_marked(q, index, slot);
        return result == ESMS_OK ? static_cast<int32_t>(body_length(slot_size(q), *slot)) : result;
    });
}

int frx_release(FrxChannel *handle, int error) noexcept {
    const CheckedEnd end = check_end(kReader, handle);
    if (end.fault != ESMS_OK) return end.fault;
    const Locked done = under_lock(handle, [&] { return q_release(end.q, error); });
    if (done.code() == ESMS_OK) finish_transfer(kReader, end.q, handle->channel);
    return done.code();
}

int frx_readBody(FrxChannel *handle, int *type, void *buffer, uint32_t capacity, int timeout) {
    uint32_t length = 0;
    return when_read(
        handle, buffer != nullptr, timeout,
        [&](halvo_channel *q) { return q_read_body(q, type, buffer, capacity, &length); },
        [&](halvo_channel *q) {
            finish_transfer(kReader, q, handle->channel);
            return static_cast<int32_t>(length);
        });
}

int frx_readMany(FrxChannel *handle, FrxMessage *messages, int n, int timeout) {
    int done = 0;
    const auto read_some = [&](halvo_channel *q) {
        int result = ESMS_OK;
        while (done < n && result == ESMS_OK) {
            FrxMessage &message = messages[done];
            result = q_read_body(q, &message.type, message.data, message.capacity, &message.length);
            if (result == ESMS_OK) ++done;
        }
        return done > 0 ? ESMS_OK : result;
    };
    const bool arguments_ok = messages && n > 0 && messages->data;
    return when_read(handle, arguments_ok, timeout, read_some, [&](halvo_channel *q) {
        finish_transfer(kReader, q, handle->channel);
        return done;
    });
}

int frx_reserve(FrxChannel *handle, uint32_t length, qmsg **slot, int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, slot != nullptr);
    if (end.fault != ESMS_OK) return end.fault;
    return code_of(write_one(handle, end.q, timeout, "snd error .....",
                             [=](halvo_channel *q) { return q_reserve(q, length, slot); }));
}

int frx_publish(FrxChannel *handle, int type, uint32_t length) noexcept {
    const CheckedEnd end = check_end(kWriter, handle);
    if (end.fault != ESMS_OK) return end.fault;
    const Locked done = under_lock(handle, [&] { return q_publish(end.q, type, length); });
    if (done.code() == ESMS_OK) finish_transfer(kWriter, end.q, handle->channel);
    return done.code();
}

int frx_writeMany(FrxChannel *handle, const FrxMessage *messages, int n, int timeout) {
    const CheckedEnd end = check_end(kWriter, handle, messages && n > 0 && messages->data);
    if (end.fault != ESMS_OK) return end.fault;
    int done = 0;
    const auto write_some = [&](halvo_channel *q) {
        int result = ESMS_OK;
        while (done < n && result == ESMS_OK) {
            const FrxMessage &message = messages[done];
            result = q_write(q, message.type, message.data, message.length);
            if (result == ESMS_OK) ++done;
        }
        return done > 0 ? ESMS_OK : result;
    };
    const int32_t code = finish_write(
        handle, end.q, write_one(handle, end.q, timeout, "snd error ....", write_some));
    return code == ESMS_OK ? done : code;
}
