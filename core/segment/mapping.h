// sms_shm: those who use the attached segment without a caller who could keep close_shm() away: the
// clock and the monitor. close_shm() unmaps when the last of them is done.
#pragma once

#include "core/segment/segment.h"

namespace halvo {

class MappingUse {
public:
    MappingUse() noexcept;
    MappingUse(const MappingUse &) = delete;
    MappingUse &operator=(const MappingUse &) = delete;
    ~MappingUse();

    // The segment, which stays mapped while this stands; null when none is attached.
    halvo_segment *segment() const noexcept { return segment_; }

private:
    uint32_t forks_;
    halvo_segment *segment_;
};

// For close_shm(), when `attached` is null: returns when nobody uses the mapping any more.
void wait_for_mapping_users() noexcept;

} // namespace halvo
