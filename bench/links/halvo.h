// Our own links over a segment of their own, one channel a lane.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/common.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::bench {

class HalvoLink {
public:
    HalvoLink(const Shape &shape, int lanes) : shape_(shape), segment_(build(shape, lanes)) {}
    const Shape &shape() const { return shape_; }
    const std::string &key_file() const { return segment_.key_file(); }

private:
    static test::Segment build(const Shape &shape, int lanes) {
        test::SegmentBuilder builder;
        for (int lane = 0; lane < lanes; ++lane)
            builder.channel("L" + std::to_string(lane), 'M', shape.slots, shape.slot);
        return builder.build();
    }
    Shape shape_;
    test::Segment segment_;
};

// Room for a slot, aligned as the writer's slots are.
class SlotBuffer {
public:
    explicit SlotBuffer(uint32_t bytes) : words_((bytes + 7) / 8) {}
    void *data() { return words_.data(); }
    const char *body() const {
        return reinterpret_cast<const char *>(words_.data()) + offsetof(qmsg, data);
    }

private:
    std::vector<uint64_t> words_;
};

// Whether a call did what it was asked for, rather than answer `not_yet`.
inline bool done(const char *call, int result, int not_yet) {
    if (result != ESMS_OK && result != not_yet)
        throw Failure(std::string(call) + " " + std::to_string(result));
    return result == ESMS_OK;
}

// q_write and q_read, polling.
struct QLink : HalvoLink {
    using HalvoLink::HalvoLink;
    void enter() {
        if (init_shm(key_file().c_str()) != ESMS_OK) throw Failure("init_shm");
        q_settime();
    }
    struct Writer : Body {
        Writer(QLink &link, int lane) : Body(link.shape()), q(q_open(lane, 'w')) {
            if (!q) throw Failure("q_open");
        }
        bool send(uint32_t length) {
            return done("q_write", q_write(q, 1, body(), length), ESMS_FULL);
        }
        halvo_channel *q;
    };
    struct Reader {
        Reader(QLink &link, int lane) : q(q_open(lane, 'r')), slot(link.shape().slot) {
            if (!q) throw Failure("q_open");
        }
        const char *receive() {
            return done("q_read", q_read(q, slot.data()), ESMS_EMPTY) ? slot.body() : nullptr;
        }
        halvo_channel *q;
        SlotBuffer slot;
    };
};

// frx_write and frx_read, blocking.
struct FrxLink : HalvoLink {
    static constexpr int kPatience = 20000; // milliseconds
    using HalvoLink::HalvoLink;
    void enter() {
        if (frx_initialize(key_file().c_str()) != ESMS_OK) throw Failure("frx_initialize");
    }
    struct End {
        End(int lane, char side) {
            if (frx_openChannel(&handle, "bench", lane, side, kPatience) != ESMS_OK)
                throw Failure("frx_openChannel");
        }
        FrxChannel handle{};
    };
    struct Writer : End, Body {
        Writer(FrxLink &link, int lane) : End(lane, 'w'), Body(link.shape()) {}
        bool send(uint32_t length) {
            return done("frx_write", frx_write(&handle, 1, body(), length, kPatience), ESMS_OK);
        }
    };
    struct Reader : End {
        Reader(FrxLink &link, int lane) : End(lane, 'r'), slot(link.shape().slot) {}
        const char *receive() {
            const int result = frx_read(&handle, slot.data(), kPatience);
            if (result < 0) throw Failure("frx_read " + std::to_string(result));
            return slot.body();
        }
        SlotBuffer slot;
    };
};

} // namespace halvo::bench
