// sms_fq: the end item, for whoever ends a data file.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace halvo::fq {

// As pwrite.
ssize_t write_end_item(int fd, int64_t at) noexcept;

} // namespace halvo::fq
