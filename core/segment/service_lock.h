// Queue core: the lock that serialises attach, detach and the reset of the table of open ends.
#pragma once

namespace halvo {

// False when it was not to be had within a second, or its own thread holds it already.
bool lock_service() noexcept;
bool unlock_service() noexcept;

} // namespace halvo
