#include "fq/transactions/channel_stats.h"

#include "core/base/process.h"
#include "core/ring/side.h"
#include "core/ring/throttle.h"
#include "core/segment/ring.h"
#include "core/segment/segment.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

int32_t now() { return static_cast<int32_t>(q_gettime()); }

void alive(const Side &side, halvo_channel *q) {
    store(q->*side.file_heartbeat, now());
    store(q->*side.file_pid, process_id());
}

void add(halvo_u64 &counter, int number) {
    counter += static_cast<uint64_t>(static_cast<int64_t>(number));
}

} // namespace

ChannelStats::ChannelStats(int channel) noexcept : q_(checked_channel(channel)) {}

void ChannelStats::writer_alive() noexcept {
    if (q_) alive(kWriter, q_);
}

void ChannelStats::reader_alive() noexcept {
    if (q_) alive(kReader, q_);
}

bool ChannelStats::read_refused() noexcept { return q_ && rate_refused(q_); }

void ChannelStats::committed_writes(int items, int errors) noexcept {
    if (!q_) return;
    alive(kWriter, q_);
    store(q_->lastin, now());
    add(q_->fpcnt.count, items);
    add(q_->fpcnt.ecount, errors);
}

// Kept: only the record of the type itself is counted, not record 0 for every message.
void ChannelStats::single_write(int type, bool success) noexcept {
    if (!q_) return;
    committed_writes(1, 0);
    if (type < 0 || type >= HALVO_TYPES) return;
    add(q_->tcnt[type].count, 1);
    if (!success) add(q_->tcnt[type].ecount, 1);
}

void ChannelStats::committed_reads(int items, int errors) noexcept {
    if (!q_) return;
    alive(kReader, q_);
    store(q_->lastout, now());
    add(q_->fgcnt.count, items);
    // Kept: the errors go to the get counter of the ring; the write side's go to fpcnt.
    add(q_->gcnt.ecount, errors);
}
