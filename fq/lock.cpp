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
#include <utility>

#include "fq/files.h"
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

void init_once() { pthread_once(&once_control, fq_mtx_init); }

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

    MutexLock threads; // declared before the files: it is given back after they are closed
    const FileName lock_name = lock_file(trans->path, mode);
    Descriptor lock = open_queue_file(lock_name, O_WRONLY | O_CREAT);
    if (!lock) {
        std::printf("fq_enqueue.open error %s\n", lock_name.text);
        return -1;
    }
    trans->lockkey = ftok(lock_name.text, 1);
    pthread_mutex_t *mutex = fq_key2mtx(trans->lockkey);
    if (!mutex) {
        std::puts("fq_lock.fq_key2mtx returns NULL ");
        return -2;
    }
    if (threads.lock(*mutex) != 0) {
        std::puts("fq_lock.pthread_mutex_lock error ");
        return -3;
    }
    if (lockf(lock.get(), F_LOCK, 0) != 0) return -4;

    const FileName position_name = position_file(trans->path, mode);
    Descriptor position = open_queue_file(position_name, O_RDWR | O_CREAT);
    if (!position) {
        std::printf("fq_enqueue_away.open error %s\n", position_name.text);
        return -5;
    }
    const int result = load_position(trans->path, position.get(), trans->curpos, mode, made_first);
    if (result < 0) {
        std::puts("fq_enqueue_away.fq_get_pos error ");
        return -6;
    }
    std::memcpy(trans->startpos, trans->curpos, kRecordSize);
    // Kept: the locks stay taken until fq_unlock; the record owns them now.
    trans->lockfd = lock.release();
    trans->posfd = position.release();
    trans->mtx = threads.release();
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
    if (trans->posfd < 1) {
        std::puts("invalid stat(index fd) ");
        result = -1;
    } else {
        Descriptor(trans->posfd).reset();
        trans->posfd = -1;
    }
    if (!held) {
        std::puts("invalid stat(lock fd) ");
        result = -5;
    } else {
        const Descriptor lock(std::exchange(trans->lockfd, -1));
        if (lockf(lock.get(), F_ULOCK, 0) != 0) {
            std::puts("unlock error ");
            result = -4;
        }
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
