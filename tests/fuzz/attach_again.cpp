#include "tests/fuzz/attachment.h"

#include "core/attach.cpp" // its variables are its own

void halvo::fuzz::forget_attachment() {
    forget_channel_semaphores();
    segment_ever = attached = nullptr;
    forget_channels();
    shmblock = nullptr;
    segment_size = 0;
    lock_service(); // which a failed attach has kept
    unlock_service();
}
