#include "fq/open_files.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <atomic>
#include <cstring>
#include <new>

using namespace halvo;
using namespace halvo::fq;

namespace {

// Open sides that no transaction uses: both of sixteen queues.
constexpr int kMostIdle = 32;

pthread_mutex_t mtxsides = PTHREAD_MUTEX_INITIALIZER;
OpenSide *sides = nullptr; // the last used one first; guarded by mtxsides

// Running sides by the descriptor of their lock. One beyond the table is searched for in the list.
std::array<std::atomic<OpenSide *>, 1024> running;
std::atomic<OpenSide *> *running_entry(int lockfd) noexcept {
    const auto index = static_cast<size_t>(lockfd);
    return lockfd >= 1 && index < running.size() ? &running[index] : nullptr;
}
void set_running(const OpenSide *side, OpenSide *now) noexcept {
    if (auto *entry = running_entry(side->lock.get())) entry->store(now);
}

// What is known of a file. Asks for no times: a file whose times have been seen pays for new ones
// at its next write.
struct State {
    State(int fd, const char *name, int flags) noexcept {
        struct statx seen;
        if (statx(fd, name, flags, STATX_INO | STATX_NLINK | STATX_SIZE, &seen) == 0)
            set(makedev(seen.stx_dev_major, seen.stx_dev_minor), seen.stx_ino, seen.stx_nlink,
                static_cast<int64_t>(seen.stx_size));
        else if (struct stat old; fstatat(fd, name, &old, flags) == 0) // statx may be forbidden
            set(old.st_dev, old.st_ino, static_cast<uint32_t>(old.st_nlink), old.st_size);
    }
    void set(uint64_t dev, uint64_t ino, uint32_t nlink, int64_t bytes) {
        found = true;
        device = dev;
        inode = ino;
        links = nlink;
        size = bytes;
    }
    bool found = false;
    uint64_t device = 0, inode = 0;
    uint32_t links = 0;
    int64_t size = -1;
};
State state_of(int fd) noexcept { return {fd, "", AT_EMPTY_PATH}; }
State state_of(const FileName &name) noexcept { return {AT_FDCWD, name.text, 0}; }

void unlink_side(OpenSide *side) {
    OpenSide **link = &sides;
    while (*link && *link != side) link = &(*link)->next;
    if (*link) *link = side->next;
}

void push_front(OpenSide *side) {
    side->next = sides;
    sides = side;
}

// Closes an idle side unless its mutex is taken: somebody may have the lock of its lock file.
bool close_idle(OpenSide *side) {
    pthread_mutex_t *mutex = fq_key2mtx(side->key);
    if (!mutex || pthread_mutex_trylock(mutex) != 0) return false;
    unlink_side(side);
    close_side(side);
    pthread_mutex_unlock(mutex);
    return true;
}

// Closes idle sides until no more than `most` are left, those first that were used longest ago.
// Returns how many were closed.
int close_idle_down_to(int most) {
    int closed = 0;
    OpenSide *victims[kMostIdle + 1];
    int count = 0;
    for (OpenSide *side = sides; side; side = side->next)
        if (!side->running && most-- <= 0 && count <= kMostIdle) victims[count++] = side;
    while (count > 0) closed += close_idle(victims[--count]);
    return closed;
}

bool make_room() {
    const MutexLock lock(mtxsides);
    return close_idle_down_to(0) > 0;
}

// Closes the idle sides when the library goes.
struct AtExit {
    ~AtExit() { make_room(); }
} at_exit;

} // namespace

// ---- Files -------------------------------------------------------------------------------------

bool KeptFile::open(const FileName &name, int flags) noexcept {
    Descriptor opened = open_queue_file(name, flags);
    if (!opened && (errno == EMFILE || errno == ENFILE) && make_room())
        opened = open_queue_file(name, flags);
    if (!opened) return false;
    const State state = state_of(opened.get());
    if (!state.found) return false;
    close();
    file_ = std::move(opened);
    device_ = state.device;
    inode_ = state.inode;
    size_ = state.size;
    return true;
}

bool KeptFile::still_there() noexcept {
    const State state = state_of(file_.get());
    size_ = state.size;
    const bool same = state.found && state.device == device_ && state.inode == inode_;
    if (same && state.links > 0) return true;
    if (!same) file_.release(); // closed behind our back: the number may be another file's by now
    file_.reset();
    return false;
}

bool KeptFile::still_named(const FileName &name) noexcept {
    const State state = state_of(name);
    size_ = state.size;
    if (state.found && state.device == device_ && state.inode == inode_) return true;
    close();
    return false;
}

void KeptFile::close() noexcept {
    const int error = errno;
    if (file_ && still_there()) file_.reset();
    errno = error;
}

bool DataFile::open(const char *path, int32_t wanted, int flags) noexcept {
    if (!file.open(data_file(path, wanted), flags)) return false;
    order = wanted;
    return true;
}

bool OpenSide::has_data(int32_t order) noexcept {
    data_seen = data.is(order) && (data_seen || data.file.still_there());
    return data_seen;
}

// ---- Sides -------------------------------------------------------------------------------------

OpenSide *halvo::fq::make_side(const char *path, char mode) noexcept {
    OpenSide *side = new (std::nothrow) OpenSide;
    if (!side) return nullptr;
    std::strcpy(side->path, path);
    side->mode = mode;
    return side;
}

void halvo::fq::close_side(OpenSide *side) noexcept { delete side; }

OpenSide *halvo::fq::take_kept_side(const char *path, char mode) noexcept {
    const MutexLock lock(mtxsides);
    OpenSide *side = sides;
    while (side && (side->running || side->mode != mode || std::strcmp(side->path, path) != 0))
        side = side->next;
    if (side) unlink_side(side);
    return side;
}

void halvo::fq::start_side(OpenSide *side) noexcept {
    side->data_seen = false;
    side->ahead.begin();
    const MutexLock lock(mtxsides);
    side->running = true;
    push_front(side);
    set_running(side, side);
}

OpenSide *halvo::fq::running_side(int lockfd) noexcept {
    const auto *entry = running_entry(lockfd);
    if (entry || lockfd < 1) return entry ? entry->load(std::memory_order_acquire) : nullptr;
    const MutexLock lock(mtxsides);
    OpenSide *side = sides;
    while (side && !(side->running && side->lock.get() == lockfd)) side = side->next;
    return side;
}

OpenSide *halvo::fq::running_side(int lockfd, const char *path) noexcept {
    OpenSide *side = running_side(lockfd);
    return side && std::strcmp(side->path, path) == 0 ? side : nullptr;
}

void halvo::fq::keep_side(OpenSide *side) noexcept {
    side->batch.rest();
    const MutexLock lock(mtxsides);
    set_running(side, nullptr);
    side->running = false;
    unlink_side(side);
    push_front(side);
    close_idle_down_to(kMostIdle);
}

void halvo::fq::drop_side(OpenSide *side) noexcept {
    {
        const MutexLock lock(mtxsides);
        set_running(side, nullptr);
        unlink_side(side);
    }
    close_side(side);
}

void halvo::fq::lock_sides() noexcept { pthread_mutex_lock(&mtxsides); }
void halvo::fq::unlock_sides() noexcept { pthread_mutex_unlock(&mtxsides); }

void halvo::fq::forget_running_sides() noexcept {
    for (OpenSide **link = &sides; *link;) {
        if ((*link)->running) {
            set_running(*link, nullptr);
            *link = (*link)->next;
        } else {
            link = &(*link)->next;
        }
    }
}
