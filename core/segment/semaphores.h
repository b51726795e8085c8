// sms_shm: the semaphores of the attached segment: their ids, and waking those who sleep on them.
#pragma once

namespace halvo {

// Finds the semaphores of the attached segment by its key file; beside no other thread's operations.
void find_semaphores(const char *keyfile) noexcept;
// Forgets those of the channels; the lock sets stay.
void forget_channel_semaphores() noexcept;

// Their ids; -1 where there is none or the number is no channel.
int post_semaphore(int channel) noexcept;
int request_semaphore(int channel) noexcept;
// Sets of one semaphore a channel, which admit one process to each end.
int read_lock_set() noexcept;
int write_lock_set() noexcept;

// sem_mutex_lock() without the wait: -1 with EAGAIN when another one has it.
int try_lock(int semid, int n) noexcept;

// Sets the first semaphore of a set to 1. 0, or -1 with errno.
int post(int semid) noexcept;

} // namespace halvo
