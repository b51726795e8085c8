// sms_fq: opening the files of a queue.
#pragma once

#include <unistd.h>

#include "core/posix.h"
#include "fq/format.h"

namespace halvo::fq {

// Opens a file of a queue. Something that is no regular file (a pipe of that name) fails where it is
// used, and never makes the open wait.
inline Descriptor open_queue_file(const FileName &name, int flags) noexcept {
    return open_file(name.text, flags | O_NONBLOCK | O_NOCTTY);
}

// Why a pread or pwrite at an offset did not do all its work: because one cannot go there at all?
inline bool seek_fails(int fd, int64_t at) noexcept { return lseek(fd, at, SEEK_SET) < 0; }

} // namespace halvo::fq
