// sms_fq: the two locks of a side, held for a whole transaction: a mutex keeps the threads of this
// process apart, lockf on the side's lock file the processes. A lockf lock belongs to the process
// and goes with the first close of any descriptor of its file; so the file is closed only while
// the mutex is still held.
//
//   taken  mutex, file lock     given back  file lock, mutex
#include "fq/files/lock.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "fq/files/durable.h"
#include "fq/files/open_files.h"
#include "fq/files/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

// A side in the hands of the call that locks it.
struct CloseSide {
    void operator()(OpenSide *side) const { close_side(side); }
};
using OwnSide = std::unique_ptr<OpenSide, CloseSide>;

// Waits for the file lock; 0 or an error number. The system takes a cycle of processes for a
// deadlock, though another thread of the one that holds the lock will give it back. So the lock is
// tried again. Only a thread that holds a side itself may be part of a true one: it gives up when
// the cycle lasts.
int wait_for_lock(int fd) {
    constexpr time_t kPatience = 10; // seconds
    timespec pause{0, 1000000};
    const time_t began = time(nullptr);
    while (lockf(fd, F_LOCK, 0) != 0) {
        if (errno != EDEADLK) return errno;
        if (time(nullptr) - began > kPatience && thread_holds_a_side()) return EDEADLK;
        if (nanosleep(&pause, nullptr) != 0) return errno;
        pause.tv_nsec = std::min(pause.tv_nsec * 2, 50000000L);
    }
    return 0;
}

// Takes both locks of a side. 0 or a failure after its line. The side comes back with the mutex and
// without its lock file when that is not the one of the name: it then has to be closed.
int take_locks(fqtrans *trans, OpenSide &side, MutexLock &threads) {
    const bool kept = bool(side.lock);
    if (!kept && !side.lock.open(side.directory(), side.lock_name, O_WRONLY | O_CREAT)) {
        std::printf("fq_enqueue.open error %s\n", side.lock_name.text);
        return kNoLockFile;
    }
    if (!is_entry_for(side.entry, side.lock.id())) side.entry = entry_for(side.lock.id());
    trans->lockkey = key_of(side.lock.id());
    if (!side.entry) {
        std::puts("fq_lock.fq_key2mtx returns NULL ");
        return kNoMutex;
    }
    if (threads.lock(side.entry->mutex) != 0) {
        std::puts("fq_lock.pthread_mutex_lock error ");
        return kMutexNotLocked;
    }
    const int error = wait_for_lock(side.lock.get());
    if (error != 0 && !(kept && error == EBADF)) return kFileNotLocked;
    side.names.ask(side.directory());
    if (error != 0 || !side.lock.is_named(side.directory(), side.lock_name, side.names, false))
        side.lock.close();
    return 0;
}

bool open_log_file(OpenSide &side) {
    if (side.log.open(side.directory(), side.log_name, O_RDWR | O_CREAT)) return true;
    std::printf("fq_enqueue_away.open error %s\n", side.log_name.text);
    return false;
}

// Opens the position file, if it is not open from before, and reads the position.
int open_log(fqtrans *trans, OpenSide &side, bool &made_first) {
    // A log without a record is written at the descriptor's offset: that of a new one.
    bool kept = side.log.is_named(side.directory(), side.log_name, side.names, false);
    if (kept && read_guessed_position(side, trans->curpos)) {
        made_first = false;
        return kRecordSize;
    }
    kept = kept && side.log.is_named(side.directory(), side.log_name, side.names, true) &&
           side.log.size() >= kRecordSize;
    for (;; kept = false) {
        if (!kept && !open_log_file(side)) return kNoLog;
        const int result = load_position(side, trans->curpos, made_first);
        const bool lasts =
            result >= 0 &&
            (!made_first || (sync_file(side.log.get()) && sync_names(side.directory(), side.path)));
        if (lasts) return result;
        if (kept && errno == EBADF) continue; // closed behind our back
        std::puts("fq_enqueue_away.fq_get_pos error ");
        return kNoPosition;
    }
}

// Gives the file lock back, and the side whose lock it is. As lockf.
int give_back_lock(int lockfd, OpenSide *side) {
    const Descriptor unknown(side ? -1 : lockfd);
    const int result = lockf(lockfd, F_ULOCK, 0);
    if (side) result == 0 ? keep_side(side) : drop_side(side);
    return result;
}

} // namespace

bool halvo::fq::begin_record(fqtrans *trans, const char *path) noexcept {
    if (!trans || !usable_path(path)) return false;
    // Behind the path's end its array stays as it is.
    std::memset(&trans->lockfd, 0, sizeof *trans - offsetof(fqtrans, lockfd));
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
        side.reset(take_side(trans->path, known_mode));
        if (!side) {
            std::printf("fq_enqueue.open error %s\n", lock_file(trans->path, known_mode).text);
            return kNoLockFile;
        }
        const int result = take_locks(trans, *side, threads);
        if (result < 0) return result;
    } while (!side->lock);
    const int result = open_log(trans, *side, made_first);
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
    const CancellationOff whole_call;
    bool made_first = false;
    return lock_side(mode, trans, made_first);
}

int fq_unlock(fqtrans *trans) noexcept {
    const CancellationOff whole_call;
    if (!trans) return ESMS_INVAL;
    init_once();
    int result = 0;
    const bool held = holds_side(trans);
    OpenSide *side = running_side(trans);
    if (trans->posfd < 1) {
        std::puts("invalid stat(index fd) ");
        result = kLogNotOpen;
    } else {
        if (!side || side->log.get() != trans->posfd) Descriptor(trans->posfd).reset();
        trans->posfd = -1;
    }
    if (!held) {
        std::puts("invalid stat(lock fd) ");
        result = kNotLocked;
    } else if (give_back_lock(std::exchange(trans->lockfd, -1), side) != 0) {
        std::puts("unlock error ");
        result = kFileNotUnlocked;
    }
    // Kept: mtx is not cleared. A record that was given back before has no claim on that mutex any
    // more, which another thread may hold by now.
    if (!trans->mtx) {
        std::puts("invalid stat(mtx) ");
        result = kNoMutexHeld;
    } else if (held && pthread_mutex_unlock(trans->mtx) != 0) {
        std::puts("fq_lock.pthread_mutex_unlock error ");
        result = kMutexNotUnlocked;
    }
    return result;
}
