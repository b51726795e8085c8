/* Halvo IPC: what every public header needs: linkage, visibility, shared integer types.
 *
 * All exported functions have C linkage and never throw (a cancelled thread unwinds those of frx.h
 * that wait). "Attached" in these headers means
 * that init_shm() (or frx_initialize(), or the Java initialize) has succeeded in this process.
 */
#ifndef HALVO_ABI_H
#define HALVO_ABI_H

#include <stddef.h>
#include <stdint.h>

#define HALVO_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define HALVO_BEGIN_DECLS extern "C" {
#define HALVO_END_DECLS }
#define HALVO_NOEXCEPT noexcept
#define HALVO_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define HALVO_BEGIN_DECLS
#define HALVO_END_DECLS
#define HALVO_NOEXCEPT
#define HALVO_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/* 64-bit integers of records that several processes share. They are aligned to four bytes at
 * both word sizes, so that a 32-bit and a 64-bit process see the same layout. */
typedef uint64_t halvo_u64 __attribute__((aligned(4)));

#endif
