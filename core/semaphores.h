// sms_shm: waking those who sleep on a semaphore, by its id.
#pragma once

namespace halvo {

// Sets the first semaphore of a set to 1. 0, or -1 with errno.
int post(int semid) noexcept;

} // namespace halvo
