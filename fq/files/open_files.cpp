#include "fq/files/open_files.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

using namespace halvo;
using namespace halvo::fq;

namespace {

// Open sides that no transaction uses: both of sixteen queues.
constexpr int kMostIdle = 32;
// Kept descriptors begin in the middle of the numbers that the process may use, here at most: the
// kernel's table of a process is as long as its highest number.
constexpr rlim_t kHighest = 8192;

pthread_mutex_t mtxsides = PTHREAD_MUTEX_INITIALIZER;
OpenSide *sides = nullptr; // idle ones, the last used first; guarded by mtxsides

// A forked child must find the list whole.
void lock_sides() { pthread_mutex_lock(&mtxsides); }
void unlock_sides() { pthread_mutex_unlock(&mtxsides); }
[[maybe_unused]] const int watched = pthread_atfork(lock_sides, unlock_sides, unlock_sides);

// Asks for no times: a file whose times have been seen pays for new ones at its next write.
FileState state(int fd, const char *name, int flags) noexcept {
    struct statx seen;
    struct stat old;
    if (statx(fd, name, flags, STATX_INO | STATX_SIZE, &seen) == 0)
        return {true,
                {makedev(seen.stx_dev_major, seen.stx_dev_minor), seen.stx_ino},
                static_cast<int64_t>(seen.stx_size)};
    if (errno != ENOENT && fstatat(fd, name, &old, flags) == 0) // statx may be forbidden
        return {true, {old.st_dev, old.st_ino}, old.st_size};
    return {};
}

// Closes an idle side unless its mutex is taken: somebody may have the lock of its lock file.
bool close_idle(OpenSide **link) {
    OpenSide *side = *link;
    if (pthread_mutex_trylock(&side->entry->mutex) != 0) return false;
    pthread_mutex_t *mutex = &side->entry->mutex;
    *link = side->next;
    close_side(side);
    pthread_mutex_unlock(mutex);
    return true;
}

// Closes the idle sides behind the first `most`. Returns how many.
int close_idle_behind(int most) {
    int closed = 0;
    for (OpenSide **link = &sides; *link;) {
        if (most > 0 || !close_idle(link))
            link = &(*link)->next;
        else
            ++closed;
        --most;
    }
    return closed;
}

bool make_room() {
    const MutexLock lock(mtxsides);
    return close_idle_behind(0) > 0;
}

// Closes the idle sides when the library goes.
struct AtExit {
    ~AtExit() { make_room(); }
} at_exit;

} // namespace

// ---- Names -------------------------------------------------------------------------------------

void Names::in_directory_of(const char *path) noexcept {
    fq_dirof(path, directory_);
    if (!*directory_) std::strcpy(directory_, "/");
}

void Names::ask(int start) noexcept {
    struct statx seen;
    const bool found = statx(start, directory_, 0, STATX_INO | STATX_CTIME, &seen) == 0;
    const FileId id{makedev(seen.stx_dev_major, seen.stx_dev_minor), seen.stx_ino};
    held_ = found && certain_ && id == id_ && seen.stx_ctime.tv_sec == seconds_ &&
            seen.stx_ctime.tv_nsec == nanoseconds_;
    if (held_) return;
    ++round_;
    id_ = id;
    seconds_ = seen.stx_ctime.tv_sec;
    nanoseconds_ = seen.stx_ctime.tv_nsec;
    // The clock of the directory's next change must have gone on, by more than the unit in which the
    // file system counts (10 ms in one), and a change under way must have become visible.
    constexpr int64_t kSecond = 1000000000, kSettled = kSecond / 10; // nanoseconds
    timespec now{};
    certain_ = found && nanoseconds_ != 0 && clock_gettime(CLOCK_REALTIME_COARSE, &now) == 0 &&
               (now.tv_sec - seconds_) * kSecond + now.tv_nsec - nanoseconds_ > kSettled;
}

// ---- Files -------------------------------------------------------------------------------------

FileState halvo::fq::state_of(int fd) noexcept { return state(fd, "", AT_EMPTY_PATH); }
FileState halvo::fq::state_of(int directory, const char *name) noexcept {
    return state(directory, name, 0);
}

bool KeptFile::open(int directory, const FileName &name, int flags) noexcept {
    Descriptor opened = open_queue_file(directory, name, flags);
    if (!opened && (errno == EMFILE || errno == ENFILE) && make_room())
        opened = open_queue_file(directory, name, flags);
    if (!opened) return false;
    const FileState found = state_of(opened.get());
    if (!found.found) return false;
    close();
    file_ = std::move(opened);
    id_ = found.id;
    size_ = found.size;
    asked_ = 0;
    kept_ = false;
    return true;
}

bool KeptFile::is_named(int directory, const FileName &name, const Names &names,
                        bool sized) noexcept {
    if (!file_) return false;
    const bool known = names.hold_since(asked_);
    if (known && !sized) return true;
    // A name that leads elsewhere is asked every time: what it leads to has another directory.
    FileState found =
        known ? state_of(file_.get()) : state(directory, name.text, AT_SYMLINK_NOFOLLOW);
    asked_ = found.found && found.id == id_ ? names.round() : 0;
    if (asked_ == 0 && !known) found = state_of(directory, name.text);
    size_ = found.size;
    return found.found && found.id == id_;
}

void KeptFile::close() noexcept {
    if (!file_) return;
    const int error = errno;
    if (!(state_of(file_.get()).id == id_)) file_.release();
    file_.reset();
    errno = error;
}

bool KeptFile::keep() noexcept {
    if (!file_ || kept_) return true;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    const auto from = static_cast<int>(std::min(limit.rlim_cur / 2, kHighest));
    Descriptor high(fcntl(file_.get(), F_DUPFD_CLOEXEC, from));
    if (!high) return false;
    for (OpenSide *side = sides; side; side = side->next)
        for (KeptFile *file : {&side->lock, &side->log, &side->data}) file->forget(high.get());
    file_ = std::move(high);
    kept_ = true;
    return true;
}

bool OpenSide::has_data(int32_t order) noexcept {
    data_seen = data_order == order && data &&
                (data_seen || data.is_named(directory(), data_name, names, mode == 'w'));
    return data_seen;
}

bool OpenSide::open_data(int32_t order, int flags) noexcept {
    const FileName name = data_file(path, order);
    data_seen = false;
    if (!data.open(directory(), name, flags)) {
        const int error = errno;
        // What has another name now, or none, would still take up the disk.
        if (data_order == order || !data.is_named(directory(), data_name, names, false))
            data.close();
        errno = error;
        return false;
    }
    std::strcpy(data_name.text, name.text);
    data_order = order;
    data_seen = true;
    return true;
}

bool OpenSide::is_still_the_queue(bool sized) noexcept {
    names.ask(directory());
    for (const auto &[file, name] : {std::pair(&lock, &lock_name), std::pair(&data, &data_name)}) {
        if (file->is_named(directory(), *name, names, sized && file == &data)) continue;
        std::printf("fq_write_item_commit.open error %s\n", name->text);
        return false;
    }
    return true;
}

bool DataFile::open(int32_t order, int flags) noexcept {
    return (side_ && side_->has_data(order)) || open_anew(order, flags);
}

bool DataFile::open_anew(int32_t order, int flags) noexcept {
    return side_ ? side_->open_data(order, flags)
                 : own_.open(AT_FDCWD, data_file(path_, order), flags);
}

// ---- Sides -------------------------------------------------------------------------------------

namespace {

OpenSide *made_side(const char *path, char mode, const FileId &start) {
    OpenSide *side = new (std::nothrow) OpenSide;
    if (!side) return nullptr;
    std::strcpy(side->path, path);
    side->mode = mode;
    side->names.in_directory_of(path);
    side->lock_name = lock_file(path, mode);
    side->log_name = position_file(path, mode);
    if (path[0] == '/') return side;
    side->start = open_file(".", O_PATH | O_DIRECTORY);
    side->start_id = side->start ? state_of(side->start.get()).id : FileId{};
    if (side->start && side->start_id == start) return side;
    delete side;
    return nullptr;
}

} // namespace

OpenSide *halvo::fq::take_side(const char *path, char mode) noexcept {
    const FileId start = path[0] == '/' ? FileId{} : state_of(AT_FDCWD, ".").id;
    {
        const MutexLock lock(mtxsides);
        for (OpenSide **link = &sides; *link; link = &(*link)->next) {
            OpenSide *side = *link;
            if (side->mode != mode || !(side->start_id == start) ||
                std::strcmp(side->path, path) != 0)
                continue;
            *link = side->next;
            return side;
        }
    }
    return made_side(path, mode, start);
}

void halvo::fq::close_side(OpenSide *side) noexcept { delete side; }

void halvo::fq::start_side(OpenSide *side) noexcept {
    side->data_seen = false;
    side->ahead.begin();
    side->entry->owner = pthread_self();
    side->entry->side = side;
}

OpenSide *halvo::fq::running_side(const fqtrans *trans) noexcept {
    if (trans->lockfd < 1 || !trans->mtx) return nullptr;
    const OpenKey *entry = entry_with(trans->mtx);
    OpenSide *side = entry ? entry->side : nullptr;
    return side && side->lock.get() == trans->lockfd ? side : nullptr;
}

OpenSide *halvo::fq::running_side(const fqtrans *trans, const char *path) noexcept {
    OpenSide *side = running_side(trans);
    return side && std::strcmp(side->path, path) == 0 ? side : nullptr;
}

void halvo::fq::keep_side(OpenSide *side) noexcept {
    side->batch.rest();
    side->entry->side = nullptr;
    const MutexLock lock(mtxsides);
    if (!side->lock.keep() || !side->log.keep() || !side->data.keep()) {
        close_side(side);
        return;
    }
    side->next = sides;
    sides = side;
    close_idle_behind(kMostIdle);
}

void halvo::fq::drop_side(OpenSide *side) noexcept {
    side->entry->side = nullptr;
    close_side(side);
}
