// sms_fq: the files of a side of a queue stay open from one transaction to the next.
//
// A transaction has its open side to itself and gives it back at its end; another one on the same
// side, of another thread, opens its own meanwhile. What is given back is looked at before it is
// used again: a file that was removed, replaced or moved away with its directory is opened anew, as
// is everything when the process has closed descriptors that are not its own (daemons do). Only
// open files are kept, no content: other processes write in between.
//
// A lockf lock is lost with the first close of any descriptor of its file in the process. So a lock
// file is closed only under the mutex of its key, which every user of the lock holds.
#pragma once

#include <cstdint>

#include "fq/batch.h"
#include "fq/files.h"
#include "fq/read_ahead.h"

namespace halvo::fq {

// An open file that can tell whether it is still the one that was opened.
class KeptFile {
public:
    KeptFile() = default;
    KeptFile(const KeptFile &) = delete;
    KeptFile &operator=(const KeptFile &) = delete;
    ~KeptFile() { close(); }

    // False with errno, and nothing changed, when it cannot be opened.
    bool open(const FileName &name, int flags) noexcept;
    // Leaves alone a descriptor that is another file's by now.
    void close() noexcept;

    explicit operator bool() const noexcept { return bool(file_); }
    int get() const noexcept { return file_.get(); }

    // Whether the descriptor is still that of the file, and the file has a name. Closed otherwise.
    bool still_there() noexcept;
    // Whether `name` still names the file. Closed otherwise.
    bool still_named(const FileName &name) noexcept;
    // Bytes in the file when it was opened or looked at last.
    int64_t size() const noexcept { return size_; }

private:
    Descriptor file_;
    uint64_t device_ = 0, inode_ = 0;
    int64_t size_ = 0;
};

// A data file.
struct DataFile {
    KeptFile file;
    int32_t order = -1;

    bool is(int32_t wanted) const noexcept { return file && order == wanted; }
    bool open(const char *path, int32_t wanted, int flags) noexcept;
};

struct OpenSide {
    char path[FQ_PATH_MAX + 1];
    char mode; // 'w' or 'r'
    KeptFile lock;
    int key = 0; // of the lock file's mutex
    KeptFile log;
    int64_t log_size = -1; // bytes in the log since it was locked; -1: unknown
    DataFile data;
    bool data_seen = false; // the transaction has looked whether `data` is still there
    Batch batch;            // a writer's
    ReadAhead ahead;        // a reader's

    // Whether the data file of that order is open and still there; asks once in a transaction.
    bool has_data(int32_t order) noexcept;

    // Links of the list of sides that have been given back or run a transaction.
    OpenSide *next = nullptr;
    bool running = false;
};

// A side that an earlier transaction has given back, now the caller's; null when there is none.
OpenSide *take_kept_side(const char *path, char mode) noexcept;
// A new one, nothing open. Null without memory.
OpenSide *make_side(const char *path, char mode) noexcept;
// Closes the files. The mutex of the side's key must be held if its lock file is open.
void close_side(OpenSide *side) noexcept;

// The caller's side now belongs to the transaction that has side->lock.
void start_side(OpenSide *side) noexcept;
// The side of a running transaction; null for a lock that was not taken here.
OpenSide *running_side(int lockfd) noexcept;
// The same for a call that names its queue itself; null also for another queue.
OpenSide *running_side(int lockfd, const char *path) noexcept;
// Gives a running side back, or closes it. As close_side().
void keep_side(OpenSide *side) noexcept;
void drop_side(OpenSide *side) noexcept;

// For a fork, which must find the list of sides whole.
void lock_sides() noexcept;
void unlock_sides() noexcept;
// In the child: the sides of the parent's transactions are left to whoever ends the copied records
// there. Idle ones serve the child as well, since nothing here uses a descriptor's offset.
void forget_running_sides() noexcept;

} // namespace halvo::fq
