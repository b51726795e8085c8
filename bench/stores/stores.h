// The contenders that keep items on disk. Each puts `count` items of kItemSize bytes, `batch` to a
// transaction, into a fresh place and gets them out again; it answers items per second of both
// ways (first: put, second: get). One process does both, one after the other.
#pragma once

#include <string>

#include "bench/processes.h"

namespace halvo::bench {

inline constexpr uint32_t kItemSize = 500;

struct StoreJob {
    std::string directory; // empty, and emptied by the caller
    uint32_t count;
    uint32_t batch;
};

Measured store_halvo(const StoreJob &);
// Single items by fq_enqueue_away; the way out is the same.
Measured store_halvo_away(const StoreJob &);
// write and read of the same bytes, a transaction a call; no lock, no position.
Measured store_raw(const StoreJob &);
// The fewest system calls that keep a lock and a log of positions: lock, one for each item, one for
// the position, unlock.
Measured store_calls(const StoreJob &);
// The same with one call for all items of a transaction.
Measured store_calls_together(const StoreJob &);
// In WAL mode, synchronous off.
Measured store_sqlite(const StoreJob &);
// Without sync.
Measured store_leveldb(const StoreJob &);

// The same, when every transaction is on the disk before it is answered: FQ_DURABILITY_COMMIT,
// synchronous=FULL, sync.
Measured store_halvo_durable(const StoreJob &);
Measured store_sqlite_durable(const StoreJob &);
Measured store_leveldb_durable(const StoreJob &);

// Halvo again: fills a queue once, then puts and gets single items by turns.
void fill_queue(const std::string &path, int64_t items);
Measured turn_over(const std::string &path, uint32_t count);

} // namespace halvo::bench
