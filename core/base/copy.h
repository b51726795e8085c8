// sms_shm: copying message bodies and slots.
#pragma once

#include <emmintrin.h>

#include <cstdint>
#include <cstring>

namespace halvo {

#if (defined __i386__ || defined __x86_64__) && !defined __SANITIZE_ADDRESS__ &&                   \
    !defined __SANITIZE_THREAD__
// memcpy, by registers up to two cache lines, for there to start anything else takes longer. From
// there on the processor's own string copy goes before the C library's: it does not fill the store
// buffer, in which the stores of state and position behind it would have to wait.
inline void copy_bytes(void *to, const void *from, uint32_t count) noexcept {
    constexpr uint32_t kRegister = sizeof(__m128i), kFew = 64, kRegisters = 128;
    if (count < kFew) {
        std::memcpy(to, from, count);
        return;
    }
    if (count > kRegisters) {
        uintptr_t left = count;
        __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(left) : : "memory");
        return;
    }
    const auto copy_at = [to, from](uint32_t offset) {
        const char *source = static_cast<const char *>(from) + offset;
        char *target = static_cast<char *>(to) + offset;
        _mm_storeu_si128(reinterpret_cast<__m128i *>(target),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(source)));
    };
    const uint32_t last = count - kRegister;
    for (uint32_t offset = 0; offset < last; offset += kRegister) copy_at(offset);
    copy_at(last);
}
#else
inline void copy_bytes(void *to, const void *from, uint32_t count) noexcept {
    std::memcpy(to, from, count);
}
#endif

} // namespace halvo
