// sms_shm: a semaphore wait in slices, for the blocking loops.
#pragma once

namespace halvo {

// Takes 1 from semaphore n of a set, waiting at most `milliseconds` (0 .. 999). Returns 0, or -1
// with errno: EAGAIN when the slice has passed, EINTR when a signal came. `flags` as for semop.
int take_semaphore(int semid, int n, int flags, int milliseconds) noexcept;

} // namespace halvo
