// sms_fq: the two locks of a side, held for a whole transaction: a mutex keeps the threads of this
// process apart, lockf on the side's lock file the processes. A lockf lock belongs to the process
// and goes with the first close of any descriptor of its file; so the file is closed only while
// the mutex is still held.
//
//   taken  mutex, file lock     given back  file lock, mutex
#include "fq/lock.h"

#include <sys/ipc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "fq/open_files.h"
#include "fq/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

struct OpenKey {
    int key; // 0: free
    pthread_mutex_t mutex;
};

OpenKey openkeys[256]; // entries are never released
pthread_mutex_t mtxkeys = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t once_control = PTHREAD_ONCE_INIT;

void before_fork() {
    lock_sides();
    pthread_mutex_lock(&mtxkeys);
}

void after_fork() {
    pthread_mutex_unlock(&mtxkeys);
    unlock_sides();
}

// No thread of the parent's runs in the child, so nobody there would give these mutexes back. The
// parent's file locks keep the child out.
void after_fork_in_child() {
    for (OpenKey &entry : openkeys)
        if (entry.key != 0) pthread_mutex_init(&entry.mutex, nullptr);
    forget_running_sides();
    after_fork();
}

void init() {
    fq_mtx_init();
    pthread_atfork(before_fork, after_fork, after_fork_in_child);
}

void init_once() { pthread_once(&once_control, init); }

// The entry with that key, or null.
OpenKey *entry_with(int key) {
    for (OpenKey &entry : openkeys)
        if (entry.key == key) return &entry;
    return nullptr;
}

OpenKey *made_entry(int key) {
    OpenKey *entry = entry_with(0);
    if (!entry) return nullptr;
    entry->key = key;
    if (pthread_mutex_init(&entry->mutex, nullptr) == 0) return entry;
    std::printf("fq_key2mtx.pthread_mutex_init error for key %d.\n", key);
    entry->key = 0;
    return nullptr;
}

// No entry can hold key 0, which marks the free ones.
OpenKey *entry_for(int key) {
    if (key == 0) return nullptr;
    OpenKey *entry = entry_with(key);
    return entry ? entry : made_entry(key);
}

// A side in the hands of the call that locks it.
struct CloseSide {
    void operator()(OpenSide *side) const { close_side(side); }
};
using OwnSide = std::unique_ptr<OpenSide, CloseSide>;

// Gets a side and takes both locks. 0 or a failure after its line. A side that was kept comes back
// with the mutex only when its lock file is gone: it then has to be closed.
int take_locks(char mode, fqtrans *trans, MutexLock &threads, OwnSide &side) {
    side.reset(take_kept_side(trans->path, mode));
    const bool kept = bool(side);
    if (!kept) {
        side.reset(make_side(trans->path, mode));
        const FileName name = lock_file(trans->path, mode);
        if (!side || !side->lock.open(name, O_WRONLY | O_CREAT)) {
            std::printf("fq_enqueue.open error %s\n", name.text);
            return -1;
        }
        side->key = ftok(name.text, 1);
    }
    trans->lockkey = side->key;
    pthread_mutex_t *mutex = fq_key2mtx(side->key);
    if (!mutex) {
        std::puts("fq_lock.fq_key2mtx returns NULL ");
        return -2;
    }
    if (threads.lock(*mutex) != 0) {
        std::puts("fq_lock.pthread_mutex_lock error ");
        return -3;
    }
    if (kept && !side->lock.still_there()) return 0;
    return lockf(side->lock.get(), F_LOCK, 0) == 0 ? 0 : -4;
}

// Opens the position file, if it is not open from before, and reads the position.
int open_log(char mode, fqtrans *trans, OpenSide &side, bool &made_first) {
    const FileName name = position_file(trans->path, mode);
    // A log without a record is written at the descriptor's offset: that of a new one.
    const bool usable = side.log && side.log.still_named(name) && side.log.size() >= kRecordSize;
    if (!usable && !side.log.open(name, O_RDWR | O_CREAT)) {
        std::printf("fq_enqueue_away.open error %s\n", name.text);
        return -5;
    }
    const int result = load_position(trans->path, side.log.get(), side.log.size(), trans->curpos,
                                     mode, made_first);
    if (result >= 0) {
        side.log_size = made_first ? -1 : side.log.size();
        return result;
    }
    std::puts("fq_enqueue_away.fq_get_pos error ");
    return -6;
}

// Gives the file lock back, and the side whose lock it is. As lockf.
int give_back_lock(int lockfd, OpenSide *side) {
    const Descriptor unknown(side ? -1 : lockfd);
    const int result = lockf(lockfd, F_ULOCK, 0);
    if (side) result == 0 ? keep_side(side) : drop_side(side);
    return result;
}

} // namespace

void fq_mtx_init() noexcept {
    for (OpenKey &entry : openkeys) entry = OpenKey{};
}

pthread_mutex_t *fq_key2mtx(int key) noexcept {
    init_once();
    MutexLock table;
    if (table.lock(mtxkeys) != 0) return nullptr;
    OpenKey *entry = entry_for(key);
    if (table.unlock() != 0) return nullptr;
    if (entry) return &entry->mutex;
    std::printf("fq_key2mtx(end) error for key %d.\n", key);
    return nullptr;
}

bool halvo::fq::begin_record(fqtrans *trans, const char *path) noexcept {
    if (!trans || !usable_path(path)) return false;
    std::memset(trans, 0, sizeof *trans);
    std::strcpy(trans->path, path);
    return true;
}

int halvo::fq::lock_side(char mode, fqtrans *trans, bool &made_first) noexcept {
    if (!trans || !usable_path(trans->path)) return ESMS_INVAL;
    init_once();
    trans->lockfd = trans->posfd = -1;
    trans->mtx = nullptr;
    const char known_mode = mode == 'w' ? 'w' : 'r';
    MutexLock threads; // declared before the files: it is given back after they are closed
    OwnSide side;
    do {
        side.reset(); // one whose lock file is gone
        threads.unlock();
        const int result = take_locks(known_mode, trans, threads, side);
        if (result < 0) return result;
    } while (!side->lock);
    const int result = open_log(known_mode, trans, *side, made_first);
    if (result < 0) return result;
    std::memcpy(trans->startpos, trans->curpos, kRecordSize);
    // Kept: the locks stay taken until fq_unlock; the record owns them now.
    trans->lockfd = side->lock.get();
    trans->posfd = side->log.get();
    trans->mtx = threads.release();
    start_side(side.release());
    return result;
}

int fq_lock(char mode, fqtrans *trans) noexcept {
    bool made_first = false;
    return lock_side(mode, trans, made_first);
}

int fq_unlock(fqtrans *trans) noexcept {
    if (!trans) return ESMS_INVAL;
    init_once();
    int result = 0;
    const bool held = holds_side(trans);
    OpenSide *side = running_side(trans->lockfd);
    if (trans->posfd < 1) {
        std::puts("invalid stat(index fd) ");
        result = -1;
    } else {
        if (!side || side->log.get() != trans->posfd) Descriptor(trans->posfd).reset();
        trans->posfd = -1;
    }
    if (!held) {
        std::puts("invalid stat(lock fd) ");
        result = -5;
    } else if (give_back_lock(std::exchange(trans->lockfd, -1), side) != 0) {
        std::puts("unlock error ");
        result = -4;
    }
    // Kept: mtx is not cleared. A record that was given back before has no claim on that mutex any
    // more, which another thread may hold by now.
    if (!trans->mtx) {
        std::puts("invalid stat(mtx) ");
        result = -3;
    } else if (held && pthread_mutex_unlock(trans->mtx) != 0) {
        std::puts("fq_lock.pthread_mutex_unlock error ");
        result = -2;
    }
    return result;
}
