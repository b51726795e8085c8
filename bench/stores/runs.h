// Timing of a store, the same code for every one. A store is
//
//     struct Store {
//         explicit Store(const std::string &directory);
//         void begin_put();
//         void put(const char *item);        // kItemSize bytes
//         void commit_put();
//         void begin_get(uint32_t items);    // as many will be got
//         const char *get();                 // the next item
//         void commit_get();
//     };
#pragma once

#include <algorithm>
#include <vector>

#include "bench/stores/stores.h"

namespace halvo::bench {

// Calls each with the number of items of one transaction.
template <class Transaction>
double time_batches(const StoreJob &job, Transaction transaction) {
    const double start = seconds_now();
    for (uint32_t done = 0; done < job.count;) {
        const uint32_t items = std::min(job.batch, job.count - done);
        transaction(done, items);
        done += items;
    }
    return seconds_now() - start;
}

template <class Store>
Measured time_store(const StoreJob &job) {
    return run({[&](Shared &shared) {
        Store store(job.directory);
        std::vector<char> item(kItemSize, 'x');
        const double put = time_batches(job, [&](uint32_t first, uint32_t items) {
            store.begin_put();
            for (uint32_t i = first; i < first + items; ++i) {
                stamp(item.data(), kItemSize, i);
                store.put(item.data());
            }
            store.commit_put();
        });
        const double got = time_batches(job, [&](uint32_t first, uint32_t items) {
            store.begin_get(items);
            for (uint32_t i = first; i < first + items; ++i) check(store.get(), kItemSize, i);
            store.commit_get();
        });
        shared.result = {put + got, job.count / put, job.count / got};
    }});
}

} // namespace halvo::bench
