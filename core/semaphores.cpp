// sms_shm: the semaphores. Post and request semaphores are binary signals: a post sets the value
// to 1, a wait takes it to 0. The lock sets admit one process to each end of a channel and are
// taken with undo, so that the kernel gives them back when their holder dies.
#include "core/semaphores.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include "core/attach.h"
#include "halvo/queue.h"

namespace {

int add(int semid, int n, int amount, int flags) {
    sembuf operation{};
    operation.sem_num = static_cast<unsigned short>(n);
    operation.sem_op = static_cast<short>(amount);
    operation.sem_flg = static_cast<short>(flags);
    return semop(semid, &operation, 1);
}

} // namespace

int halvo::post(int semid) noexcept { return semctl(semid, 0, SETVAL, 1); }

using namespace halvo;

int sem_postx(int channel) noexcept { return post(post_semaphore(channel)); }
int sem_rqst(int channel) noexcept { return post(request_semaphore(channel)); }
int sem_wait4read(int channel) noexcept { return add(post_semaphore(channel), 0, -1, 0); }
int sem_wait4write(int channel) noexcept { return add(request_semaphore(channel), 0, -1, 0); }
int sem_mutex_lock(int semid, int n) noexcept { return add(semid, n, -1, SEM_UNDO); }
int sem_mutex_unlock(int semid, int n) noexcept { return add(semid, n, +1, SEM_UNDO); }
