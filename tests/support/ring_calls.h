// Every call that works on the ring of a channel, the core's and the guarded ones, in one table: for
// tests that make each of them, for the proofs that kill in each, and for the fuzzer.
#pragma once

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "core/segment/ring.h"
#include "halvo/frx.h"
#include "halvo/queue.h"

namespace halvo::test {

// What a call is given; each takes of it what it has arguments for.
struct Given {
    halvo_channel *q = nullptr; // for the core's
    FrxChannel *end = nullptr;  // for the guarded ones, and for the number of the channel
    int n = 0;                  // index of a mark or buffer, number of messages
    int type = 1, error = 0, timeout = 0;
    const void *data = nullptr; // what is written
    uint32_t length = 0;
    void *room = nullptr; // where a slot goes to, or a body of up to `capacity` bytes
    uint32_t capacity = 0;
    FrxMessage *batch = nullptr; // two messages
};

struct RingCall {
    enum Gives { nothing, slot, body };
    std::string_view name;
    char side;
    int (*run)(const Given &);
    Gives gives = nothing; // what lies in the room afterwards, when there was a message

    bool is_guarded() const { return name[0] == 'f'; }
    // It looks beside the ring, or only looks: no heartbeat.
    bool is_silent() const {
        return name.ends_with("view") || name.starts_with("q_write_buf_") || name == "q_recover";
    }
};

using G = const Given &;
inline constexpr RingCall kRingCalls[] = {
    {"q_write", 'w', [](G g) { return q_write(g.q, g.type, g.data, g.length); }},
    {"q_write_mark", 'w', [](G g) { return q_write_mark(g.q, g.type, g.data, g.length); }},
    {"q_write_mark_at", 'w',
     [](G g) { return q_write_mark_at(g.q, g.type, g.data, g.length, uint32_t(g.n)); }},
    {"q_write_commit", 'w', [](G g) { return q_write_commit(g.q); }},
    {"q_write_commit_all", 'w', [](G g) { return q_write_commit_all(g.q); }},
    {"q_write_rollback", 'w', [](G g) { return q_write_rollback(g.q); }},
    {"q_write_rollback_all", 'w', [](G g) { return q_write_rollback_all(g.q); }},
    {"q_write_buf", 'w', [](G g) { return q_write_buf(g.q, g.type, g.data, g.length, g.n); }},
    {"q_write_buf_commit", 'w', [](G g) { return q_write_buf_commit(g.q, g.n); }},
    {"q_write_buf_rollback", 'w', [](G g) { return q_write_buf_rollback(g.q, g.n); }},
    {"q_reserve", 'w',
     [](G g) {
         qmsg *room = nullptr;
         const int result = q_reserve(g.q, g.length, &room);
         if (result == ESMS_OK) std::memcpy(body(room), g.data, g.length);
         return result;
     }},
    {"q_publish", 'w', [](G g) { return q_publish(g.q, g.type, g.length); }},
    {"q_writable_count", 'w', [](G g) { return q_writable_count(g.q); }},
    {"q_writeview", 'w', [](G g) { return q_writeview(g.q, g.room); }, RingCall::slot},
    {"q_recover", 'w', [](G g) { return q_recover(g.end->channel, 'w'); }},
    {"q_read", 'r', [](G g) { return q_read(g.q, g.room); }, RingCall::slot},
    {"q_read_mark", 'r', [](G g) { return q_read_mark(g.q, g.n); }},
    {"q_read_markedcount", 'r', [](G g) { return q_read_markedcount(g.q); }},
    {"q_read_markedmsg", 'r', [](G g) { return q_read_markedmsg(g.q, g.n, g.room); },
     RingCall::slot},
    {"q_read_commit", 'r', [](G g) { return q_read_commit(g.q, g.n, g.error); }},
    {"q_read_commit_with_error", 'r', [](G g) { return q_read_commit_with_error(g.q, g.n, "E1"); }},
    {"q_read_rollback", 'r', [](G g) { return q_read_rollback(g.q); }},
    {"q_read_buf", 'r', [](G g) { return q_read_buf(g.q, g.room, g.n); }, RingCall::slot},
    {"q_read_buf_clear", 'r', [](G g) { return q_read_buf_clear(g.q, g.n); }},
    {"q_peek", 'r',
     [](G g) {
         const qmsg *next = nullptr;
         const int result = q_peek(g.q, &next);
         if (result == ESMS_OK && g.room)
             std::memcpy(g.room, body(next), body_length(g.q->qbsz, next));
         return result;
     }},
    {"q_peek_marked", 'r',
     [](G g) {
         const qmsg *marked = nullptr;
         return q_peek_marked(g.q, g.n, &marked);
     }},
    {"q_release", 'r', [](G g) { return q_release(g.q, g.error); }},
    {"q_read_body", 'r', [](G g) { return q_read_body(g.q, nullptr, g.room, g.capacity, nullptr); },
     RingCall::body},
    {"q_readview", 'r', [](G g) { return q_readview(g.q, g.room); }, RingCall::slot},
    {"q_recover", 'r', [](G g) { return q_recover(g.end->channel, 'r'); }},
    {"frx_write", 'w', [](G g) { return frx_write(g.end, g.type, g.data, g.length, g.timeout); }},
    {"frx_writeMark", 'w',
     [](G g) { return frx_writeMark(g.end, g.type, g.data, g.length, g.timeout); }},
    {"frx_writeMarkAt", 'w',
     [](G g) { return frx_writeMarkAt(g.end, g.type, g.data, g.length, g.n, g.timeout); }},
    {"frx_writeCommit", 'w', [](G g) { return frx_writeCommit(g.end); }},
    {"frx_writeCommitAll", 'w', [](G g) { return frx_writeCommitAll(g.end); }},
    {"frx_writeRollback", 'w', [](G g) { return frx_writeRollback(g.end); }},
    {"frx_writeRollbackAll", 'w', [](G g) { return frx_writeRollbackAll(g.end); }},
    {"frx_writeBuf", 'w',
     [](G g) { return frx_writeBuf(g.end, g.type, g.data, g.length, g.n, g.timeout); }},
    {"frx_writeBufCommit", 'w', [](G g) { return frx_writeBufCommit(g.end, g.n); }},
    {"frx_writeBufRollback", 'w', [](G g) { return frx_writeBufRollback(g.end, g.n); }},
    {"frx_reserve", 'w',
     [](G g) {
         qmsg *room = nullptr;
         const int result = frx_reserve(g.end, g.length, &room, g.timeout);
         if (result == ESMS_OK) std::memcpy(body(room), g.data, g.length);
         return result;
     }},
    {"frx_publish", 'w', [](G g) { return frx_publish(g.end, g.type, g.length); }},
    {"frx_writeMany", 'w', [](G g) { return frx_writeMany(g.end, g.batch, 2, g.timeout); }},
    {"frx_read", 'r', [](G g) { return frx_read(g.end, g.room, g.timeout); }, RingCall::slot},
    {"frx_readMark", 'r', [](G g) { return frx_readMark(g.end, g.n, g.timeout); }},
    {"frx_readMarked", 'r', [](G g) { return frx_readMarked(g.end, g.n, g.room); }, RingCall::slot},
    {"frx_readMarkedCount", 'r', [](G g) { return frx_readMarkedCount(g.end); }},
    {"frx_readCommit", 'r', [](G g) { return frx_readCommit(g.end, g.n); }},
    {"frx_readRollback", 'r', [](G g) { return frx_readRollback(g.end); }},
    {"frx_readBuf", 'r', [](G g) { return frx_readBuf(g.end, g.room, g.timeout, g.n); },
     RingCall::slot},
    {"frx_readBufClear", 'r', [](G g) { return frx_readBufClear(g.end, g.n); }},
    {"frx_peek", 'r',
     [](G g) {
         const qmsg *next = nullptr;
         const int result = frx_peek(g.end, &next, g.timeout);
         if (result > 0 && g.room) std::memcpy(g.room, body(next), static_cast<size_t>(result));
         return result;
     }},
    {"frx_peekMarked", 'r',
     [](G g) {
         const qmsg *marked = nullptr;
         return frx_peekMarked(g.end, g.n, &marked);
     }},
    {"frx_release", 'r', [](G g) { return frx_release(g.end, g.error); }},
    {"frx_readBody", 'r',
     [](G g) { return frx_readBody(g.end, nullptr, g.room, g.capacity, g.timeout); },
     RingCall::body},
    {"frx_readMany", 'r', [](G g) { return frx_readMany(g.end, g.batch, 2, g.timeout); },
     RingCall::body},
};

inline const RingCall &ring_call(std::string_view name, char side) {
    for (const RingCall &call : kRingCalls)
        if (call.name == name && call.side == side) return call;
    throw std::out_of_range("no such call");
}

} // namespace halvo::test
