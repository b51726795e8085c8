// What the system calls alone cost: the same bytes, with and without lock and log of positions.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "bench/stores/runs.h"
#include "core/base/posix.h"

namespace halvo::bench {

namespace {

constexpr uint32_t kExtra = 22; // bytes of an item on disk besides its data
constexpr uint32_t kStride = kItemSize + kExtra;
constexpr uint32_t kPosition = 31; // bytes of a record in the log of positions

void need(ssize_t got, size_t wanted) {
    if (got != static_cast<ssize_t>(wanted)) throw Failure("system call");
}

// One side of a queue: its lock file and its log of positions.
class Side {
public:
    Side(const std::string &lock, const std::string &log)
        : lock_(open_file(lock.c_str(), O_RDWR | O_CREAT)),
          log_(open_file(log.c_str(), O_RDWR | O_CREAT)) {}
    void lock() { need(lockf(lock_.get(), F_LOCK, 0), 0); }
    void unlock() { need(lockf(lock_.get(), F_ULOCK, 0), 0); }
    void save(int64_t position) {
        char record[kPosition + 1];
        std::snprintf(record, sizeof record, "%030lld\n", static_cast<long long>(position));
        need(pwrite(log_.get(), record, kPosition, logged_), kPosition);
        logged_ += kPosition;
    }

private:
    Descriptor lock_, log_;
    int64_t logged_ = 0;
};

// Items in one file. Together: one call for all of a transaction, else one for each item. Kept: a
// lock around the transaction and a position behind it.
template <bool Together, bool Kept>
struct CallStore {
    explicit CallStore(const std::string &directory)
        : data(open_file((directory + "/data").c_str(), O_RDWR | O_CREAT)),
          writer(directory + "/wrlk", directory + "/tail"),
          reader(directory + "/rdlk", directory + "/head") {}

    void begin_put() {
        if (Kept) writer.lock();
        held = 0;
    }
    void put(const char *item) {
        if (block.size() < held + kStride) block.resize(held + kStride);
        std::memcpy(block.data() + held + 20, item, kItemSize);
        if (Together)
            held += kStride;
        else
            write_out(kStride);
    }
    void commit_put() {
        if (Together) write_out(held);
        if (!Kept) return;
        writer.save(end);
        writer.unlock();
    }
    void begin_get(uint32_t items) {
        if (Kept) reader.lock();
        if (block.size() < size_t{items} * kStride) block.resize(size_t{items} * kStride);
        if (Together) read_in(items * kStride);
        held = 0;
    }
    const char *get() {
        if (!Together) {
            read_in(kStride);
            return block.data() + 20;
        }
        held += kStride;
        return block.data() + held - kStride + 20;
    }
    void commit_get() {
        if (!Kept) return;
        reader.save(start);
        reader.unlock();
    }

    void write_out(size_t bytes) {
        need(pwrite(data.get(), block.data(), bytes, end), bytes);
        end += static_cast<int64_t>(bytes);
    }
    void read_in(size_t bytes) {
        need(pread(data.get(), block.data(), bytes, start), bytes);
        start += static_cast<int64_t>(bytes);
    }

    Descriptor data;
    Side writer, reader;
    std::vector<char> block;
    size_t held = 0;
    int64_t end = 0, start = 0;
};

} // namespace

Measured store_raw(const StoreJob &job) { return time_store<CallStore<true, false>>(job); }
Measured store_calls(const StoreJob &job) { return time_store<CallStore<false, true>>(job); }
Measured store_calls_together(const StoreJob &job) {
    return time_store<CallStore<true, true>>(job);
}

} // namespace halvo::bench
