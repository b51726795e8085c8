// sms_shmC: the channel ends that this process has open through the guarded interface.
#pragma once

#include <pthread.h>

#include "core/segment/segment.h"
#include "frx/end_lock.h"
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

constexpr int kSessions = 256;
extern FrxSession qOpenSessions[kSessions] __attribute__((visibility("hidden")));
// What goes before the mutexes of each record.
struct SessionLocks {
    EndLock writer, reader;
};
extern SessionLocks session_locks[kSessions] __attribute__((visibility("hidden")));

inline bool in_table(int channel) noexcept { return channel >= 0 && channel < kSessions; }

// What a session keeps of one end.
struct OpenEnd {
    FrxChannel *&handle;
    pthread_mutex_t &mutex;
    EndLock &lock;
};
inline OpenEnd open_end(int channel, char side) noexcept {
    FrxSession &session = qOpenSessions[channel];
    SessionLocks &locks = session_locks[channel];
    if (side == 'w') return {session.writer, session.writerLock, locks.writer};
    return {session.reader, session.readerLock, locks.reader};
}

// frx_isValid().
inline bool is_open(const FrxChannel *handle) noexcept {
    return handle && in_table(handle->channel) &&
           open_end(handle->channel, handle->side).handle == handle;
}

// The header of a channel that this interface serves (0..255), or null.
inline halvo_channel *frx_header(int channel) noexcept {
    return in_table(channel) ? checked_channel(channel) : nullptr;
}
// The same for a handle, which may be null.
inline halvo_channel *frx_header(const FrxChannel *handle) noexcept {
    return handle ? frx_header(handle->channel) : nullptr;
}

} // namespace halvo
