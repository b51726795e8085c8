// sms_fq: what a writer that died has left behind its saved position.
#pragma once

#include "halvo/fq.h"

namespace halvo::fq {

// Puts the position of a writer's side, just locked, right before its first item is written:
// behind items that became readable without their position being saved, and with nothing behind it
// in the data file. 0, or -1 after a line.
int settle_writer(fqtrans *trans) noexcept;

} // namespace halvo::fq
