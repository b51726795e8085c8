/* Halvo IPC: what every public header needs: linkage, visibility, shared integer types.
 *
 * All exported functions have C linkage and never throw (a cancelled thread unwinds those of frx.h
 * that wait). "Attached" in these headers means that init_shm() (or frx_initialize(), or the Java
 * initialize) has succeeded in this process.
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

/* Integers of records that several processes share. They may lie at any address: a channel's header
 * and its slots lie where their offsets say, which need not be multiples of anything. To a compiler
 * they are the plain types, with no more alignment than a byte's; bind no reference to them, and
 * point with these types. */
typedef int32_t halvo_i32 __attribute__((aligned(1)));
typedef uint32_t halvo_u32 __attribute__((aligned(1)));
typedef uint16_t halvo_u16 __attribute__((aligned(1)));
typedef uint64_t halvo_u64 __attribute__((aligned(1)));

#endif
