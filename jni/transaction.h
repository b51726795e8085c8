// Java binding: the record of an open file-queue transaction, which Java holds as a handle.
#pragma once

#include "halvo/fq.h"
#include "jni/native.h"

namespace halvo {

// A record for a transaction to come, zeros; null when there is no memory.
inline Memory<fqtrans> new_transaction() noexcept { return zeroed<fqtrans>(sizeof(fqtrans)); }

// A handle is the record's address, widened without a sign.
inline jlong handle_of(fqtrans *trans) noexcept {
    return static_cast<jlong>(reinterpret_cast<uintptr_t>(trans));
}

// The record of a handle; null for 0 and for a number that is no address here.
inline fqtrans *transaction_of(jlong handle) noexcept {
    const auto address = static_cast<uintptr_t>(handle);
    if (handle <= 0 || static_cast<jlong>(address) != handle) return nullptr;
    return reinterpret_cast<fqtrans *>(address); // NOLINT(performance-no-int-to-ptr)
}

} // namespace halvo
