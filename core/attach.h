// sms_shm: where the segment lies in this process, and the checked channel lookup.
#pragma once

#include "halvo/queue.h"

namespace halvo {

// The attached segment, or null before the attach, after a failed one and after close_shm(). Unlike
// q_0() it never points at memory that is gone.
extern halvo_segment *attached __attribute__((visibility("hidden")));
inline halvo_segment *attached_segment() noexcept { return attached; }

// The same, but null while q_attach_view() attached it: then nothing of it may be stored to.
halvo_segment *writable_segment() noexcept;

// The kernel's id of the segment that was attached last; -1 before.
int attached_id() noexcept;

// Channels of a segment: nchnnl, or as many as the table of offsets holds when that claims more. Of
// the attached one never more than at the attach: tables of that many records were made then.
int channel_count(const halvo_segment *segment) noexcept;

// The one checked lookup: the channel's header, or null for a number outside 0 .. nchnnl - 1, for a
// channel that does not lie whole in the segment (see core/geometry.h), or when no segment is
// attached. q_chnnl2q() checks nothing.
halvo_channel *checked_channel(int channel) noexcept;

// Whether that many bytes from an address on lie in the attached segment.
bool in_segment(const void *address, size_t bytes) noexcept;

// Semaphore ids of the attachment; -1 where there is none or the number is no channel.
int post_semaphore(int channel) noexcept;
int request_semaphore(int channel) noexcept;
int read_lock_set() noexcept;
int write_lock_set() noexcept;

// mtx_service, which serialises attach, detach and the reset of the table of open ends.
bool lock_service() noexcept;
bool unlock_service() noexcept;

} // namespace halvo
