// sms_shmC: the channel ends that this process has open through the guarded interface.
#pragma once

#include <pthread.h>

#include "halvo/frx.h"

namespace halvo {

// One channel's record in the table. The handle is the address of the caller's FrxChannel that
// opened the end last, null before the first open; the lock is initialised at that first open.
struct FrxSession {
    FrxChannel *writer;
    pthread_mutex_t writerLock;
    FrxChannel *reader;
    pthread_mutex_t readerLock;
};
static_assert(sizeof(void *) != 4 || sizeof(FrxSession) == 56);

// The header of a channel that this interface serves (0..255), or null.
halvo_channel *frx_header(int channel) noexcept;
// The same for a handle, which may be null.
halvo_channel *frx_header(const FrxChannel *handle) noexcept;

} // namespace halvo
