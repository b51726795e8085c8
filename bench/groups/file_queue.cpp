// The file queue against other keepers of items.
#include <string>

#include "bench/groups/groups.h"
#include "bench/stores/stores.h"
#include "bench/workplace.h"

namespace halvo::bench {

namespace {

struct Peer {
    const char *name;
    Measured (*store)(const StoreJob &);
    double put_goal, get_goal;
};

Contender contender(const char *name, Measured (*store)(const StoreJob &), uint32_t batch) {
    return {name, [store, batch](uint32_t count) {
                const Workplace place;
                return store({place.path(), count, batch});
            }};
}

void against(const Settings &settings, Report &report, uint32_t batch,
             const std::vector<Peer> &peers, const Peer &ours = {"fq_", store_halvo, 0, 0},
             const char *mode = "") {
    const std::string size = mode + (batch == 1 ? "single" : "batch " + std::to_string(batch));
    std::vector<Contender> all{contender(ours.name, ours.store, batch)};
    for (const Peer &peer : peers) all.push_back(contender(peer.name, peer.store, batch));
    race(all, settings, report, "file queue " + size);
    Row row{};
    row.size = size;
    row.unit = "item/s";
    for (size_t i = 0; i < peers.size(); ++i) {
        row.measure = "file queue enqueue";
        row.goal = peers[i].put_goal;
        compare(report, row, all[0], all[i + 1], &Measured::first, Better::higher);
    }
    for (size_t i = 0; i < peers.size(); ++i) {
        row.measure = "file queue dequeue";
        row.goal = peers[i].get_goal;
        compare(report, row, all[0], all[i + 1], &Measured::second, Better::higher);
    }
}

} // namespace

void measure_file_queue(const Settings &settings, Report &report) {
    report.begin(
        "file",
        "items of 500 bytes per second; nothing forced to the disk, but in the durable rows");
    against(settings, report, 1,
            {{"fewest calls", store_calls, 0.6, 0.6},
             {"sqlite", store_sqlite, 1.9, 3.6},
             {"leveldb", store_leveldb, 0.42, 0.48},
             {"raw write/read", store_raw, 0, 0},
             {"fq_enqueue_away", store_halvo_away, 0, 0}});
    against(settings, report, 100,
            {{"fewest calls, one an item", store_calls, 0.9, 0.75},
             {"fewest calls, one a batch", store_calls_together, 0, 0},
             {"sqlite", store_sqlite, 1.5, 5.5},
             {"leveldb", store_leveldb, 0.85, 2.6},
             {"raw write/read", store_raw, 0, 0}});
    for (const uint32_t batch : {1u, 100u})
        against(settings, report, batch,
                {{"sqlite, FULL", store_sqlite_durable, 1, 1},
                 {"leveldb, sync", store_leveldb_durable, 1, 1}},
                {"fq_ durable", store_halvo_durable, 0, 0}, "durable ");
}

} // namespace halvo::bench
