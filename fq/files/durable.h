// sms_fq: forcing to the disk, for processes that asked for it; for all others nothing happens here.
//
// What must be there before what, so that an acknowledged transaction survives a loss of power:
//
//   writer   new file's name | single: item | batch: items, all states but the first, first state
//            | end item | position in the next file            the position itself may come later:
//                                                              the next writer steps over the items
//   reader   the items it has read | its position | the deletion of a finished file
#pragma once

#include <cstdint>

namespace halvo::fq {

bool is_durable() noexcept;
// Both force when this process is durable. False after a line when that failed.
bool sync_file(int fd) noexcept;
// The names of the queue's files. `directory`: what a relative path counts from.
bool sync_names(int directory, const char *path) noexcept;

// Whether an item in that place may reach the disk with a hole in it: it covers a whole page that
// holds neither its header nor its trailer. It is then forced before its state says that it is whole.
constexpr bool may_get_holes(int64_t from, int64_t to) {
    constexpr int64_t page = 4096;
    return (to - 1) / page - from / page > 1;
}

} // namespace halvo::fq
