// SQLite as a queue: a table by number, in WAL mode.
#include <sqlite3.h>

#include "bench/stores/runs.h"

namespace halvo::bench {

namespace {

class Database {
public:
    Database(const std::string &file, const char *synchronous) {
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) throw Failure("sqlite3_open");
        execute("PRAGMA journal_mode=WAL");
        execute((std::string("PRAGMA synchronous=") + synchronous).c_str());
        execute("CREATE TABLE q(id INTEGER PRIMARY KEY, data BLOB)");
    }
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    ~Database() { sqlite3_close(db_); }
    void execute(const char *text) {
        if (sqlite3_exec(db_, text, nullptr, nullptr, nullptr) != SQLITE_OK)
            throw Failure(std::string("sqlite: ") + sqlite3_errmsg(db_));
    }
    sqlite3 *get() const { return db_; }

private:
    sqlite3 *db_ = nullptr;
};

class Statement {
public:
    Statement(const Database &database, const char *text) {
        if (sqlite3_prepare_v2(database.get(), text, -1, &statement_, nullptr) != SQLITE_OK)
            throw Failure(std::string("sqlite: ") + sqlite3_errmsg(database.get()));
    }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { sqlite3_finalize(statement_); }
    // One step; the result must be the given one.
    void step(int wanted) {
        if (sqlite3_step(statement_) != wanted) throw Failure("sqlite3_step");
    }
    void run() {
        step(SQLITE_DONE);
        reset();
    }
    void reset() { sqlite3_reset(statement_); }
    sqlite3_stmt *get() const { return statement_; }

private:
    sqlite3_stmt *statement_ = nullptr;
};

struct SqliteStore {
    explicit SqliteStore(const std::string &directory, const char *synchronous = "OFF")
        : database(directory + "/q.db", synchronous), begin(database, "BEGIN IMMEDIATE"),
          commit(database, "COMMIT"), insert(database, "INSERT INTO q(data) VALUES(?)"),
          take_one(database, "DELETE FROM q WHERE id=(SELECT min(id) FROM q) RETURNING data"),
          oldest(database, "SELECT id, data FROM q ORDER BY id LIMIT ?"),
          remove(database, "DELETE FROM q WHERE id<=?") {}

    void begin_put() { begin.run(); }
    void put(const char *item) {
        sqlite3_bind_blob(insert.get(), 1, item, kItemSize, SQLITE_STATIC);
        insert.run();
    }
    void commit_put() { commit.run(); }

    // A single item goes by one statement, which is its own transaction.
    void begin_get(uint32_t items) {
        single = items == 1;
        if (single) return;
        begin.run();
        sqlite3_bind_int(oldest.get(), 1, static_cast<int>(items));
    }
    const char *get() {
        Statement &statement = single ? take_one : oldest;
        statement.step(SQLITE_ROW);
        if (!single) last = sqlite3_column_int64(statement.get(), 0);
        const int column = single ? 0 : 1;
        if (sqlite3_column_bytes(statement.get(), column) != static_cast<int>(kItemSize))
            throw Failure("sqlite: item of another size");
        return static_cast<const char *>(sqlite3_column_blob(statement.get(), column));
    }
    void commit_get() {
        if (single) {
            take_one.run();
            return;
        }
        oldest.reset();
        sqlite3_bind_int64(remove.get(), 1, last);
        remove.run();
        commit.run();
    }

    Database database;
    Statement begin, commit, insert, take_one, oldest, remove;
    bool single = false;
    sqlite3_int64 last = 0;
};

struct DurableStore : SqliteStore {
    explicit DurableStore(const std::string &directory) : SqliteStore(directory, "FULL") {}
};

} // namespace

Measured store_sqlite_durable(const StoreJob &job) { return time_store<DurableStore>(job); }
Measured store_sqlite(const StoreJob &job) { return time_store<SqliteStore>(job); }

} // namespace halvo::bench
