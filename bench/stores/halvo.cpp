// The file queue.
#include "bench/stores/runs.h"
#include "halvo/fq.h"

namespace halvo::bench {

namespace {

constexpr int kNoChannel = -1;

struct QueueStore {
    explicit QueueStore(const std::string &directory) : path(directory + "/q") {}
    void begin_put() { first = true; }
    void put(const char *item) {
        const int result = first ? fq_enqueue(kNoChannel, path.c_str(), item, kItemSize, &trans)
                                 : fq_enqueue_next(kNoChannel, item, kItemSize, &trans);
        first = false;
        if (result <= 0) throw Failure("fq_enqueue " + std::to_string(result));
    }
    void commit_put() {
        if (fq_enqueue_commit(kNoChannel, &trans) != 0) throw Failure("fq_enqueue_commit");
    }
    void begin_get(uint32_t) { first = true; }
    const char *get() {
        const int result =
            first ? fq_dequeue(kNoChannel, path.c_str(), buffer, kItemSize, &trans)
                  : fq_dequeue_next(kNoChannel, path.c_str(), &trans, buffer, kItemSize);
        first = false;
        if (result <= 0) throw Failure("fq_dequeue " + std::to_string(result));
        return buffer + 20; // behind the item's header
    }
    void commit_get() {
        if (fq_dequeue_commit(kNoChannel, &trans) != 0) throw Failure("fq_dequeue_commit");
    }
    std::string path;
    fqtrans trans{};
    bool first = true;
    char buffer[kItemSize + FQ_ITEM_EXTRA];
};

// In a process of its own. The queue's files are made before it is timed, as the tables of others are.
struct DurableStore : QueueStore {
    explicit DurableStore(const std::string &directory) : QueueStore(directory) {
        fq_set_durability(FQ_DURABILITY_COMMIT);
        const std::vector<char> item(kItemSize, 'x');
        begin_put();
        put(item.data());
        commit_put();
        begin_get(1);
        get();
        commit_get();
    }
};

struct AwayStore : QueueStore {
    using QueueStore::QueueStore;
    void put(const char *item) {
        if (fq_enqueue_away(kNoChannel, 1, 1, path.c_str(), item, kItemSize) != 0)
            throw Failure("fq_enqueue_away");
    }
    void commit_put() {}
};

} // namespace

Measured store_halvo(const StoreJob &job) { return time_store<QueueStore>(job); }
Measured store_halvo_durable(const StoreJob &job) { return time_store<DurableStore>(job); }
Measured store_halvo_away(const StoreJob &job) { return time_store<AwayStore>(job); }

void fill_queue(const std::string &directory, int64_t items) {
    const auto fill = [&](Shared &) {
        QueueStore store(directory);
        const std::vector<char> item(kItemSize, 'x');
        for (int64_t done = 0; done < items;) {
            store.begin_put();
            const int64_t end = std::min<int64_t>(items, done + 1000);
            for (; done < end; ++done) store.put(item.data());
            store.commit_put();
        }
    };
    if (items > 0) run({fill}, 600);
}

Measured turn_over(const std::string &directory, uint32_t count) {
    return run({[&](Shared &shared) {
        QueueStore store(directory);
        const std::vector<char> item(kItemSize, 'x');
        const double start = seconds_now();
        for (uint32_t i = 0; i < count; ++i) {
            store.begin_put();
            store.put(item.data());
            store.commit_put();
            store.begin_get(1);
            store.get();
            store.commit_get();
        }
        shared.result.seconds = seconds_now() - start;
        shared.result.first = count / shared.result.seconds;
    }});
}

} // namespace halvo::bench
