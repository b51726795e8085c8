// Zero-filled memory that forked processes share and that goes with them.
#pragma once

#include <sys/mman.h>

#include "bench/common.h"

namespace halvo::bench {

class SharedMemory {
public:
    explicit SharedMemory(size_t bytes)
        : bytes_(bytes),
          data_(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (data_ == MAP_FAILED) throw Failure("mmap");
    }
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;
    ~SharedMemory() { munmap(data_, bytes_); }
    char *data() const { return static_cast<char *>(data_); }

private:
    size_t bytes_;
    void *data_;
};

} // namespace halvo::bench
