// sms_shm: the semaphores. Post and request semaphores are binary signals: a post sets the value
// to 1, a wait takes it to 0. The lock sets admit one process to each end of a channel and are
// taken with undo, so that the kernel gives them back when their holder dies.
#include "core/segment/semaphores.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <new>

#include "core/segment/keys.h"
#include "core/segment/segment.h"
#include "halvo/queue.h"

using namespace halvo;

namespace {

int *semPosts = nullptr; // sets of first_channels channels
int *semRqsts = nullptr;
int semReadLock = -1;
int semWriteLock = -1;

int set_id(const char *path, int project, int semaphores) {
    const key_t key = ftok(path, project);
    return key == -1 ? -1 : semget(key, semaphores, 0);
}

// One id per channel, -1 for every channel that is not of type 'M' and where the set is missing.
int *channel_semaphores(const char *keyfile, const char *suffix) {
    const KeyPath path(keyfile, suffix);
    int *ids = new (std::nothrow) int[static_cast<size_t>(first_channels)];
    for (int channel = 0; ids && channel < first_channels; ++channel) {
        const halvo_channel *q = header_in(segment_ever, channel);
        ids[channel] = q && q->qtype == 'M' ? set_id(path.text, channel_project(channel), 1) : -1;
    }
    return ids;
}

int id_of(const int *ids, int channel) {
    return ids && channel >= 0 && channel < first_channels ? ids[channel] : -1;
}

int add(int semid, int n, int amount, int flags) {
    sembuf operation{};
    operation.sem_num = static_cast<unsigned short>(n);
    operation.sem_op = static_cast<short>(amount);
    operation.sem_flg = static_cast<short>(flags);
    return semop(semid, &operation, 1);
}

} // namespace

namespace halvo {

void find_semaphores(const char *keyfile) noexcept {
    forget_channel_semaphores();
    semPosts = channel_semaphores(keyfile, kPostSuffix);
    semRqsts = channel_semaphores(keyfile, kRequestSuffix);
    semReadLock = set_id(keyfile, kReadLockProject, first_channels);
    semWriteLock = set_id(keyfile, kWriteLockProject, first_channels);
}

void forget_channel_semaphores() noexcept {
    delete[] semPosts;
    delete[] semRqsts;
    semPosts = semRqsts = nullptr;
}

int post_semaphore(int channel) noexcept { return id_of(semPosts, channel); }
int request_semaphore(int channel) noexcept { return id_of(semRqsts, channel); }
int read_lock_set() noexcept { return semReadLock; }
int write_lock_set() noexcept { return semWriteLock; }

int try_lock(int semid, int n) noexcept { return add(semid, n, -1, SEM_UNDO | IPC_NOWAIT); }
int post(int semid) noexcept { return semctl(semid, 0, SETVAL, 1); }

} // namespace halvo

int sem_postx(int channel) noexcept { return post(post_semaphore(channel)); }
int sem_rqst(int channel) noexcept { return post(request_semaphore(channel)); }
int sem_wait4read(int channel) noexcept { return add(post_semaphore(channel), 0, -1, 0); }
int sem_wait4write(int channel) noexcept { return add(request_semaphore(channel), 0, -1, 0); }
int sem_mutex_lock(int semid, int n) noexcept { return add(semid, n, -1, SEM_UNDO); }
int sem_mutex_unlock(int semid, int n) noexcept { return add(semid, n, +1, SEM_UNDO); }
