// sms_shm: the lock that serialises attach, detach and the reset of the table of open ends.
#pragma once

namespace halvo {

// Waits for it. False when it is kept for good, or its own thread holds it already.
bool lock_service() noexcept;
bool unlock_service() noexcept;
void keep_service() noexcept; // for the one that holds it

} // namespace halvo
