// Our links without a copy, with bodies alone, and with many messages at a time.
#pragma once

#include <algorithm>

#include "bench/links/halvo.h"
#include "bench/links/links.h"

namespace halvo::bench {

// The bytes that an end in place touches: built apart and put into the slot, or taken out of it.
struct TouchedBytes {
    static constexpr uint32_t kTouched = kTouchedInPlace;
    char *body() { return bytes; }
    void put(qmsg *slot, uint32_t length) const {
        std::memcpy(reinterpret_cast<char *>(slot) + offsetof(qmsg, data), bytes, moved(length));
    }
    const char *take(const qmsg *slot) {
        std::memcpy(bytes, reinterpret_cast<const char *>(slot) + offsetof(qmsg, data),
                    moved(slot->len));
        return bytes;
    }
    static uint32_t moved(uint32_t length) { return std::min(length, kTouched); }
    char bytes[kTouched] = {};
};

// q_reserve and q_publish to q_peek and q_release, polling.
struct QInPlaceLink : QLink {
    using QLink::QLink;
    struct Writer : TouchedBytes {
        Writer(QInPlaceLink &, int lane) : q(q_open(lane, 'w')) {
            if (!q) throw Failure("q_open");
        }
        bool send(uint32_t length) {
            qmsg *slot = nullptr;
            if (!done("q_reserve", q_reserve(q, length, &slot), ESMS_FULL)) return false;
            put(slot, length);
            return done("q_publish", q_publish(q, 1, length), ESMS_OK);
        }
        halvo_channel *q;
    };
    struct Reader : TouchedBytes {
        Reader(QInPlaceLink &, int lane) : q(q_open(lane, 'r')) {
            if (!q) throw Failure("q_open");
        }
        const char *receive() {
            const qmsg *slot = nullptr;
            if (!done("q_peek", q_peek(q, &slot), ESMS_EMPTY)) return nullptr;
            take(slot);
            done("q_release", q_release(q, 0), ESMS_OK);
            return bytes;
        }
        halvo_channel *q;
    };
};

// frx_reserve and frx_publish to frx_peek and frx_release, blocking.
struct FrxInPlaceLink : FrxLink {
    using FrxLink::FrxLink;
    struct Writer : End, TouchedBytes {
        Writer(FrxInPlaceLink &, int lane) : End(lane, 'w') {}
        bool send(uint32_t length) {
            qmsg *slot = nullptr;
            done("frx_reserve", frx_reserve(&handle, length, &slot, kPatience), ESMS_OK);
            put(slot, length);
            return done("frx_publish", frx_publish(&handle, 1, length), ESMS_OK);
        }
    };
    struct Reader : End, TouchedBytes {
        Reader(FrxInPlaceLink &, int lane) : End(lane, 'r') {}
        const char *receive() {
            const qmsg *slot = nullptr;
            const int result = frx_peek(&handle, &slot, kPatience);
            if (result < 0) throw Failure("frx_peek " + std::to_string(result));
            take(slot);
            done("frx_release", frx_release(&handle, 0), ESMS_OK);
            return bytes;
        }
    };
};

// frx_write and frx_readBody, blocking.
struct FrxBodyLink : FrxLink {
    using FrxLink::FrxLink;
    struct Reader : End, Body {
        Reader(FrxBodyLink &link, int lane)
            : End(lane, 'r'), Body(link.shape()), capacity(link.shape().body) {}
        const char *receive() {
            const int result = frx_readBody(&handle, nullptr, body(), capacity, kPatience);
            if (result < 0) throw Failure("frx_readBody " + std::to_string(result));
            return body();
        }
        uint32_t capacity;
    };
};

// frx_writeMany and frx_readMany, blocking, a batch of messages at a time.
struct FrxManyLink : FrxLink {
    static constexpr int kBatch = 64;
    using FrxLink::FrxLink;
    struct Batch : End {
        Batch(const Shape &shape, int lane, char side)
            : End(lane, side), bytes(size_t{kBatch} * shape.body, 'x'), messages(kBatch) {
            for (size_t i = 0; i < kBatch; ++i)
                messages[i] = {1, shape.body, shape.body, bytes.data() + i * shape.body};
        }
        char *body(int i) const {
            return static_cast<char *>(messages[static_cast<size_t>(i)].data);
        }
        std::vector<char> bytes;
        std::vector<FrxMessage> messages;
        int next = 0, filled = 0;
    };
    struct Writer : Batch {
        Writer(FrxManyLink &link, int lane) : Batch(link.shape(), lane, 'w') {}
        char *body() const { return Batch::body(filled); }
        bool send(uint32_t) {
            if (++filled == kBatch) flush();
            return true;
        }
        void flush() {
            for (int sent = 0; sent < filled;) {
                const int result =
                    frx_writeMany(&handle, messages.data() + sent, filled - sent, kPatience);
                if (result < 1) throw Failure("frx_writeMany " + std::to_string(result));
                sent += result;
            }
            filled = 0;
        }
    };
    struct Reader : Batch {
        Reader(FrxManyLink &link, int lane) : Batch(link.shape(), lane, 'r') {}
        const char *receive() {
            if (next == filled) {
                filled = frx_readMany(&handle, messages.data(), kBatch, kPatience);
                if (filled < 1) throw Failure("frx_readMany " + std::to_string(filled));
                next = 0;
            }
            return body(next++);
        }
    };
};

} // namespace halvo::bench
