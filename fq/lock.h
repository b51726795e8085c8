// sms_fq: taking one side of a queue.
#pragma once

#include "halvo/fq.h"

namespace halvo::fq {

// As fq_lock. `made_first`: the position is not one that a transaction saved, because the log held
// none.
int lock_side(char mode, fqtrans *trans, bool &made_first) noexcept;

// Makes a record new and puts the path into it. False for an unusable path or a null record.
bool begin_record(fqtrans *trans, const char *path) noexcept;

// Whether the record holds its side.
inline bool holds_side(const fqtrans *trans) noexcept { return trans && trans->lockfd >= 1; }

} // namespace halvo::fq
