#include "tests/fuzz/attachment.h"

#include "core/attach.cpp" // its variables are its own

void halvo::fuzz::forget_attachment() {
    delete[] std::exchange(semPosts, nullptr);
    delete[] std::exchange(semRqsts, nullptr);
    segment_ever = attached = nullptr;
    forget_channels();
    shmblock = nullptr;
    segment_size = 0;
    semReadLock = semWriteLock = -1;
    mtx_service = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP; // a failed attach keeps it
}
