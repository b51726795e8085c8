// sms_fq: opening the files of a queue, and telling one file from another.
//
// `directory` is the open directory that a relative queue path counts from, AT_FDCWD for none.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "core/base/posix.h"
#include "fq/files/format.h"

namespace halvo::fq {

// Opens a file of a queue. Something that is no regular file (a pipe of that name) fails where it is
// used, and never makes the open wait.
inline Descriptor open_queue_file(int directory, const FileName &name, int flags) noexcept {
    return open_file_at(directory, name.text, flags | O_NONBLOCK | O_NOCTTY);
}

// Why a pread or pwrite at an offset did not do all its work: because one cannot go there at all?
inline bool seek_fails(int fd, int64_t at) noexcept { return lseek(fd, at, SEEK_SET) < 0; }

// What tells a file from every other one there is.
struct FileId {
    uint64_t device = 0, inode = 0;
    bool operator==(const FileId &) const = default;
};

struct FileState {
    bool found = false;
    FileId id;
    int64_t size = -1; // bytes
};
FileState state_of(int fd) noexcept;
FileState state_of(int directory, const char *name) noexcept;

} // namespace halvo::fq
