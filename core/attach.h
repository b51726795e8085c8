// sms_shm: what the attach finds beside the segment: its semaphores; and the lock of the service.
#pragma once

#include "core/segment.h"

namespace halvo {

// The attached segment, but null while q_attach_view() attached it: then nothing of it may be stored
// to.
halvo_segment *writable_segment() noexcept;

// The kernel's id of the segment that was attached last; -1 before.
int attached_id() noexcept;

// Semaphore ids of the attachment; -1 where there is none or the number is no channel.
int post_semaphore(int channel) noexcept;
int request_semaphore(int channel) noexcept;
int read_lock_set() noexcept;
int write_lock_set() noexcept;

// mtx_service, which serialises attach, detach and the reset of the table of open ends.
bool lock_service() noexcept;
bool unlock_service() noexcept;

} // namespace halvo
