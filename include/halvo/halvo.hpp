/* Halvo IPC: channel ends for C++20 programs, over frx.h.
 *
 *     halvo::attach("/tmp/halvo.key");
 *     halvo::Result<halvo::Writer> out = halvo::Writer::open("MT01", "hello", 1s);
 *     if (!out) return out.error();
 *     out->write(1, bytes, 1s);
 *
 * An end is opened by open() and given back by its destructor. Nothing here throws, but std::bad_alloc
 * when an end is opened; reads and writes that wait are unwound when their thread is cancelled, as frx.h
 * tells. A call answers a Result: its value, or the ESMS_* code of result.h (below 0)
 * as frx.h tells it for the function of the same name. Time limits are whole milliseconds, rounded up
 * and at most INT_MAX; Limit::none() does not wait for room. A thread uses an end at a time, unless it is
 * said otherwise in frx.h. With GCC 12 a source that includes this cannot be compiled to another set of
 * letters by -fexec-charset: its <chrono> needs UTF-8.
 */
#ifndef HALVO_HALVO_HPP
#define HALVO_HALVO_HPP

#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>
#include <span>
#include <utility>
#include <variant>

#include "halvo/frx.h"

namespace halvo {

using Bytes = std::span<const std::byte>;
using Room = std::span<std::byte>;

/* A value, or the code of a failure. value() and * may be called only when there is one, error() only
 * when there is none. */
template <class Value>
class [[nodiscard]] Result {
public:
    Result(Value value) : content_(std::in_place_index<0>, std::move(value)) {}
    static Result failure(int code) { return Result(std::in_place_index<1>, code); }

    explicit operator bool() const noexcept { return content_.index() == 0; }
    bool has_value() const noexcept { return content_.index() == 0; }
    Value &value() noexcept { return *std::get_if<0>(&content_); }
    const Value &value() const noexcept { return *std::get_if<0>(&content_); }
    Value &operator*() noexcept { return value(); }
    const Value &operator*() const noexcept { return value(); }
    Value *operator->() noexcept { return &value(); }
    const Value *operator->() const noexcept { return &value(); }
    int error() const noexcept { return *std::get_if<1>(&content_); }

private:
    Result(std::in_place_index_t<1> which, int code) : content_(which, code) {}
    std::variant<Value, int> content_;
};
/* Success, or the code of a failure. */
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    static Result failure(int code) {
        Result result;
        result.code_ = code;
        return result;
    }
    explicit operator bool() const noexcept { return code_ >= 0; }
    bool has_value() const noexcept { return code_ >= 0; }
    int error() const noexcept { return code_; }

private:
    int code_ = ESMS_OK;
};

/* A time limit in milliseconds, from any duration of <chrono>. */
class Limit {
public:
    template <class Rep, class Period>
    constexpr Limit(std::chrono::duration<Rep, Period> limit) noexcept {
        // The longest durations of <chrono> have no number of milliseconds but a floating one.
        const double exact = std::chrono::duration<double, std::milli>(limit).count();
        milliseconds_ = exact >= INT_MAX ? INT_MAX : exact > 0 ? static_cast<int>(exact) : 0;
        if (milliseconds_ < INT_MAX && exact > milliseconds_) ++milliseconds_;
    }
    /* Does not wait for room; a read ends at the monitor's next scan. */
    static constexpr Limit none() noexcept { return Limit(-1); }
    constexpr int milliseconds() const noexcept { return milliseconds_; }

private:
    explicit constexpr Limit(int milliseconds) noexcept : milliseconds_(milliseconds) {}
    int milliseconds_ = 0;
};

namespace detail {

/* What does not fit the parameters of frx.h is longer than any slot. */
inline uint32_t length_of(size_t bytes) noexcept {
    return bytes < UINT32_MAX ? static_cast<uint32_t>(bytes) : UINT32_MAX;
}
inline int count_of(size_t messages) noexcept {
    return messages < INT_MAX ? static_cast<int>(messages) : INT_MAX;
}

inline Result<void> done(int code) {
    return code < 0 ? Result<void>::failure(code) : Result<void>();
}
inline Result<int> number(int n) { return n < 0 ? Result<int>::failure(n) : Result<int>(n); }

/* An open end. Its handle stays at its address when the object moves. */
class End {
public:
    FrxChannel *handle() const noexcept { return handle_.get(); }
    int channel() const noexcept { return handle_->channel; }

protected:
    static int open(std::unique_ptr<FrxChannel> &handle, const char *channel, const char *client,
                    char side, Limit limit) {
        handle = std::make_unique<FrxChannel>();
        const int number = frx_channelByName(channel);
        const int code =
            number < 0 ? int(ESMS_INVAL)
                       : frx_openChannel(handle.get(), client, number, side, limit.milliseconds());
        if (code != ESMS_OK) handle.reset();
        return code;
    }
    explicit End(std::unique_ptr<FrxChannel> handle) noexcept : handle_(std::move(handle)) {}
    End(End &&) noexcept = default;
    End &operator=(End &&other) noexcept {
        close();
        handle_ = std::move(other.handle_);
        return *this;
    }
    ~End() { close(); }

private:
    void close() noexcept {
        if (handle_) frx_closeChannel(handle_.get());
        handle_.reset();
    }
    std::unique_ptr<FrxChannel> handle_;
};

} // namespace detail

/* frx_initialize(): once in a process. */
inline Result<void> attach(const char *key_file) noexcept {
    return detail::done(frx_initialize(key_file));
}

/* A channel's reading end. */
class Reader : public detail::End {
public:
    /* client  the name to show for this process; 23 bytes are kept. */
    static Result<Reader> open(const char *channel, const char *client, Limit limit) {
        std::unique_ptr<FrxChannel> handle;
        const int code = End::open(handle, channel, client, 'r', limit);
        if (code != ESMS_OK) return Result<Reader>::failure(code);
        return Reader(std::move(handle));
    }

    struct Message {
        int type;
        Bytes body;
    };
    /* Takes the next message into the caller's room; its body lies in there. ESMS_EXEED when it is
     * longer, and then it stays. */
    Result<Message> read(Room room, Limit limit) {
        int type = 0;
        const int length = frx_readBody(handle(), &type, room.data(),
                                        detail::length_of(room.size()), limit.milliseconds());
        if (length < 0) return Result<Message>::failure(length);
        return Message{type, Bytes(room.data(), static_cast<size_t>(length))};
    }
    /* The next message where it lies, until release() or the next read(). */
    Result<Message> peek(Limit limit) {
        const qmsg *slot = nullptr;
        const int length = frx_peek(handle(), &slot, limit.milliseconds());
        return message_in(slot, length);
    }
    Result<void> release(int errors = 0) noexcept {
        return detail::done(frx_release(handle(), errors));
    }
    /* A batch that the death of this process loses nothing of. As frx_readMark(): marks up to n messages
     * (0: all that are there), waiting for the first. How many; 0 when the time ran out. */
    Result<int> mark(int n, Limit limit) {
        return detail::number(frx_readMark(handle(), n, limit.milliseconds()));
    }
    /* As frx_peekMarked(): marked message `index` (0 is the oldest) where it lies, until commit() or
     * rollback(). */
    Result<Message> marked(int index) noexcept {
        const qmsg *slot = nullptr;
        const int length = frx_peekMarked(handle(), index, &slot);
        return message_in(slot, length);
    }
    /* As frx_readCommit(): consumes the first n of them (0: all). How many. */
    Result<int> commit(int n = 0) noexcept { return detail::number(frx_readCommit(handle(), n)); }
    /* As frx_readRollback(): hands them back, to be read again. How many. */
    Result<int> rollback() noexcept { return detail::number(frx_readRollback(handle())); }
    /* As frx_readMany(): the number of records that were filled. */
    Result<int> read(std::span<FrxMessage> messages, Limit limit) {
        return detail::number(frx_readMany(
            handle(), messages.data(), detail::count_of(messages.size()), limit.milliseconds()));
    }

private:
    using End::End;
    static Result<Message> message_in(const qmsg *slot, int length) noexcept {
        if (length < 0) return Result<Message>::failure(length);
        const auto *bytes = reinterpret_cast<const std::byte *>(slot) + offsetof(qmsg, data);
        return Message{slot->type, Bytes(bytes, static_cast<size_t>(length))};
    }
};

/* A channel's writing end. */
class Writer : public detail::End {
public:
    static Result<Writer> open(const char *channel, const char *client, Limit limit) {
        std::unique_ptr<FrxChannel> handle;
        const int code = End::open(handle, channel, client, 'w', limit);
        if (code != ESMS_OK) return Result<Writer>::failure(code);
        return Writer(std::move(handle));
    }

    Result<void> write(int type, Bytes body, Limit limit) {
        return detail::done(frx_write(handle(), type, body.data(), detail::length_of(body.size()),
                                      limit.milliseconds()));
    }
    /* Room for a body of so many bytes where the message will lie, until publish(). */
    Result<Room> reserve(size_t length, Limit limit) {
        qmsg *slot = nullptr;
        const int code =
            frx_reserve(handle(), detail::length_of(length), &slot, limit.milliseconds());
        if (code != ESMS_OK) return Result<Room>::failure(code);
        return Room(reinterpret_cast<std::byte *>(slot) + offsetof(qmsg, data), length);
    }
    Result<void> publish(int type, size_t length) noexcept {
        return detail::done(frx_publish(handle(), type, detail::length_of(length)));
    }
    /* As frx_writeMany(): the number of messages that were written. */
    Result<int> write(std::span<const FrxMessage> messages, Limit limit) {
        return detail::number(frx_writeMany(
            handle(), messages.data(), detail::count_of(messages.size()), limit.milliseconds()));
    }

private:
    using End::End;
};

} // namespace halvo

#endif
