// One hash for checks, fingerprints and the choice of a shard: FNV-1a, 64 bits. It is stored and must
// stay as it is.
#pragma once

#include <cstddef>
#include <cstdint>

namespace halvo::relay {

inline uint64_t hash_of(const void *data, size_t length, uint64_t hash = 0xcbf29ce484222325U) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3U;
    return hash;
}

} // namespace halvo::relay
