// sms_fq: taking one side of a queue.
#pragma once

#include "halvo/fq.h"

namespace halvo::fq {

// Why a side was not locked.
enum LockResult {
    kNoLockFile = -1,
    kNoMutex = -2, // the table is full
    kMutexNotLocked = -3,
    kFileNotLocked = -4,
    kNoLog = -5,
    kNoPosition = -6,
};
// What failed when it was given back.
enum UnlockResult {
    kLogNotOpen = -1,
    kMutexNotUnlocked = -2,
    kNoMutexHeld = -3,
    kFileNotUnlocked = -4,
    kNotLocked = -5,
};

// As fq_lock. `made_first`: the position is not one that a transaction saved, because the log held
// none.
int lock_side(char mode, fqtrans *trans, bool &made_first) noexcept;

// Makes a record new and puts the path into it. False for an unusable path or a null record.
bool begin_record(fqtrans *trans, const char *path) noexcept;

// Whether the record holds its side.
inline bool holds_side(const fqtrans *trans) noexcept { return trans && trans->lockfd >= 1; }

} // namespace halvo::fq
