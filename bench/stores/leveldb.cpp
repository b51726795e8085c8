// LevelDB as a queue: items by number. The reader knows the next number, so that it never searches.
#include <leveldb/c.h>

#include <cstdlib>

#include "bench/stores/runs.h"

namespace halvo::bench {

namespace {

void need(char *error) {
    if (!error) return;
    const std::string text = std::string("leveldb: ") + error;
    std::free(error);
    throw Failure(text);
}

// Numbers sort as bytes.
struct Key {
    explicit Key(uint32_t number) {
        for (size_t i = 0; i < sizeof bytes; ++i)
            bytes[i] = static_cast<char>(number >> (8 * (sizeof bytes - 1 - i)));
    }
    char bytes[4];
};

struct LevelStore {
    explicit LevelStore(const std::string &directory) {
        leveldb_options_t *options = leveldb_options_create();
        leveldb_options_set_create_if_missing(options, 1);
        leveldb_options_set_compression(options, leveldb_no_compression);
        char *error = nullptr;
        db = leveldb_open(options, (directory + "/db").c_str(), &error);
        leveldb_options_destroy(options);
        need(error);
    }
    LevelStore(const LevelStore &) = delete;
    LevelStore &operator=(const LevelStore &) = delete;
    ~LevelStore() {
        std::free(item);
        leveldb_close(db);
        leveldb_writebatch_destroy(batch);
        leveldb_writeoptions_destroy(writing);
        leveldb_readoptions_destroy(reading);
    }

    void begin_put() { leveldb_writebatch_clear(batch); }
    void put(const char *bytes) {
        const Key key(written++);
        leveldb_writebatch_put(batch, key.bytes, sizeof key.bytes, bytes, kItemSize);
    }
    void commit_put() { apply(); }
    void begin_get(uint32_t) { leveldb_writebatch_clear(batch); }
    const char *get() {
        const Key key(taken++);
        char *error = nullptr;
        size_t length = 0;
        std::free(item);
        item = leveldb_get(db, reading, key.bytes, sizeof key.bytes, &length, &error);
        need(error);
        if (!item || length != kItemSize) throw Failure("leveldb: item missing");
        leveldb_writebatch_delete(batch, key.bytes, sizeof key.bytes);
        return item;
    }
    void commit_get() { apply(); }

    void apply() {
        char *error = nullptr;
        leveldb_write(db, writing, batch, &error);
        need(error);
    }

    leveldb_t *db = nullptr;
    leveldb_writebatch_t *batch = leveldb_writebatch_create();
    leveldb_writeoptions_t *writing = leveldb_writeoptions_create(); // sync is off
    leveldb_readoptions_t *reading = leveldb_readoptions_create();
    char *item = nullptr;
    uint32_t written = 0, taken = 0;
};

struct DurableStore : LevelStore {
    explicit DurableStore(const std::string &directory) : LevelStore(directory) {
        leveldb_writeoptions_set_sync(writing, 1);
    }
};

} // namespace

Measured store_leveldb_durable(const StoreJob &job) { return time_store<DurableStore>(job); }
Measured store_leveldb(const StoreJob &job) { return time_store<LevelStore>(job); }

} // namespace halvo::bench
