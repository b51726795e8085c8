// sms_fq: the files of a side of a queue stay open from one transaction to the next.
//
// A transaction has its open side to itself and gives it back at its end; another one on the same
// side, of another thread, opens its own meanwhile. Only open files are kept, no content: other
// processes write in between. A kept file serves only while its name is that file's: each
// transaction asks, and a commit asks again.
//
// Kept descriptors have high numbers, which no open() of the host's gives out: a host that closes
// what is not its own leaves a number that is not in use, and the next call on it says so. A file
// that cannot have such a number is not kept.
//
// A lockf lock is lost with the first close of any descriptor of its file in the process. So a lock
// file is closed only under the mutex of its key, which every user of the lock holds.
#pragma once

#include "fq/files/batch.h"
#include "fq/files/files.h"
#include "fq/files/key_table.h"
#include "fq/files/read_ahead.h"

namespace halvo::fq {

// The names in a queue's directory. Every change of one marks the directory's time, so that a
// directory of the same path, device, inode and time has the names that it had: what was asked of
// each file since then holds. A time of a moment ago does not count, for there may still be another
// change of that time, nor does one without a fraction, as file systems have that count seconds.
class Names {
public:
    void in_directory_of(const char *path) noexcept;
    // Asks the directory, by its name. `start`: what a relative path counts from.
    void ask(int start) noexcept;
    // Whether the answer for a file holds that was given in such a round of asking.
    bool hold_since(uint64_t round) const noexcept { return held_ && round == round_; }
    uint64_t round() const noexcept { return round_; }

private:
    char directory_[FQ_NAME_SIZE];
    FileId id_;
    int64_t seconds_ = 0;
    uint32_t nanoseconds_ = 0;
    bool certain_ = false, held_ = false;
    uint64_t round_ = 0;
};

class KeptFile {
public:
    KeptFile() = default;
    KeptFile(const KeptFile &) = delete;
    KeptFile &operator=(const KeptFile &) = delete;
    ~KeptFile() { close(); }

    // False with errno, and nothing changed, when it cannot be opened.
    bool open(int directory, const FileName &name, int flags) noexcept;
    // Leaves alone a descriptor that is another file's by now.
    void close() noexcept;
    // Gives the descriptor its high number. False when it cannot have one.
    bool keep() noexcept;
    // Its number has been given out anew, so it had been closed behind our back.
    void forget(int number) noexcept {
        if (file_.get() == number) file_.release();
    }

    explicit operator bool() const noexcept { return bool(file_); }
    int get() const noexcept { return file_.get(); }
    const FileId &id() const noexcept { return id_; }

    // Whether the file is open and `name` names it. `sized`: size() is wanted too.
    bool is_named(int directory, const FileName &name, const Names &names, bool sized) noexcept;
    // Bytes in the file when it was opened or asked for last.
    int64_t size() const noexcept { return size_; }

private:
    Descriptor file_;
    FileId id_;
    int64_t size_ = 0;
    uint64_t asked_ = 0; // the round in which its name was last found to be its own
    bool kept_ = false;
};

struct OpenSide {
    char path[FQ_PATH_MAX + 1];
    char mode; // 'w' or 'r'
    // What a relative path counts from.
    Descriptor start;
    FileId start_id;
    Names names;
    FileName lock_name, log_name, data_name;
    KeptFile lock, log, data;
    OpenKey *entry = nullptr; // of the lock file
    int64_t log_size = -1;    // bytes in the log since it was locked; -1: unknown
    int64_t log_guess = -1;   // what the log will hold after the last commit, if nobody else writes
    Position left;            // what the log's record before its last says
    int32_t data_order = -1;  // of `data`
    bool data_seen = false;   // the transaction has asked whether `data` has its name
    Batch batch;              // a writer's
    ReadAhead ahead;          // a reader's
    OpenSide *next = nullptr; // in the list of those that have been given back

    int directory() const noexcept { return start ? start.get() : AT_FDCWD; }
    // Whether the data file of that order is open and has its name; asks once in a transaction.
    bool has_data(int32_t order) noexcept;
    bool open_data(int32_t order, int flags) noexcept;
    // Asks whether lock file and data file still have their names; a line when not.
    bool is_still_the_queue(bool sized) noexcept;
};

// A side that an earlier transaction has given back, now the caller's; else a new one, nothing open.
// Null without memory, and when the working directory of a relative path cannot be opened.
OpenSide *take_side(const char *path, char mode) noexcept;
// Closes the files. The mutex of the side's key must be held if its lock file is open.
void close_side(OpenSide *side) noexcept;

// The caller's side now belongs to the transaction that holds its entry's mutex.
void start_side(OpenSide *side) noexcept;
// The side of the transaction that a record holds; null for a lock that was not taken here.
OpenSide *running_side(const fqtrans *trans) noexcept;
// The same for a call that names its queue itself; null also for another queue.
OpenSide *running_side(const fqtrans *trans, const char *path) noexcept;
// Ends a side's transaction: gives it back, or closes it. As close_side().
void keep_side(OpenSide *side) noexcept;
void drop_side(OpenSide *side) noexcept;

// The data file of a call: that of the transaction's side, or one of the call's own.
class DataFile {
public:
    DataFile(const fqtrans *trans, const char *path) noexcept
        : side_(running_side(trans, path)), path_(path) {}
    explicit DataFile(const char *path) noexcept : side_(nullptr), path_(path) {}
    OpenSide *side() const noexcept { return side_; }
    KeptFile &file() noexcept { return side_ ? side_->data : own_; }
    int get() noexcept { return file().get(); }
    int directory() const noexcept { return side_ ? side_->directory() : AT_FDCWD; }
    // Opens the file of that order, if the transaction has not done so before; errno when it fails.
    bool open(int32_t order, int flags) noexcept;
    // The same, whatever is open.
    bool open_anew(int32_t order, int flags) noexcept;

private:
    OpenSide *side_;
    const char *path_;
    KeptFile own_;
};

} // namespace halvo::fq
