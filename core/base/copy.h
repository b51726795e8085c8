// sms_shm: copying message bodies and slots.
#pragma once

#include <cstdint>
#include <cstring>

namespace halvo {

// memcpy. From a cache line on the processor's own string copy goes before the C library's: it does
// not fill the store buffer, in which the stores of state and position behind it would have to wait.
inline void copy_bytes(void *to, const void *from, uint32_t count) noexcept {
#if (defined __i386__ || defined __x86_64__) && !defined __SANITIZE_ADDRESS__ &&                   \
    !defined __SANITIZE_THREAD__
    constexpr uint32_t kShort = 64;
    if (count >= kShort) {
        uintptr_t left = count;
        __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(left) : : "memory");
        return;
    }
#endif
    std::memcpy(to, from, count);
}

} // namespace halvo
