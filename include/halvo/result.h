/* Halvo IPC: result codes.
 *
 * Every operation answers with a signed 32-bit number: 0 or a positive count, length or time for
 * success, one of these negative codes for failure. Compare with the names, never with numbers.
 * The list stands once; the names that printr() prints come from it too. A program can expand it
 * for itself:
 *
 *     #define CASE(name, value, meaning) case value: return #name;
 *     switch (code) { HALVO_RESULT_CODES(CASE) }
 */
#ifndef HALVO_RESULT_H
#define HALVO_RESULT_H

#include "halvo/abi.h"

/* clang-format off */
#define HALVO_RESULT_CODES(X)                                                                      \
    X(ESMS_OK,          0, "success")                                                              \
    X(ESMS_TIMEOUT,    -1, "a blocking wait ran out of time")                                      \
    X(ESMS_FULL,       -2, "no free slot where one is needed")                                     \
    X(ESMS_EMPTY,      -3, "nothing to read, or the read rate is above its limit")                 \
    X(ESMS_MTXINIT,    -4, "the mutex of a channel end could not be initialised")                  \
    X(ESMS_MTXLOCK,    -5, "a lock could not be taken, or the read lock not given back")           \
    X(ESMS_MTXUNLOCK,  -6, "a lock could not be given back")                                       \
    X(ESMS_NOINIT,     -7, "the segment is not attached")                                          \
    X(ESMS_ALREADY,    -8, "the segment is already attached")                                      \
    X(ESMS_SHMOP,      -9, "a shared-memory call failed")                                          \
    X(ESMS_INVAL,     -10, "invalid argument: channel, index, length or slot state")               \
    X(ESMS_FAILED,    -11, "general failure, such as an unknown open mode")                        \
    X(ESMS_EXEED,     -12, "message longer than the slot allows")                                  \
    X(ESMS_PENDING,   -13, "a slot needed is held by an uncommitted mark or buffer")               \
    X(ESMS_NOTARGET,  -14, "nothing to commit or roll back")                                       \
    X(ESMS_JAVAINTR,  -15, "a blocking wait was interrupted by a signal")                          \
    X(ESMS_ACCESS,    -16, "not the registered reader or writer, or the channel could not be opened") \
    X(ESMS_STAT,      -17, "reserved; no operation of the queues returns it")
/* clang-format on */

#define HALVO_RESULT_ENUMERATOR(name, value, meaning) name = (value),
enum halvo_result { HALVO_RESULT_CODES(HALVO_RESULT_ENUMERATOR) HALVO_RESULT_LOWEST = -17 };
#undef HALVO_RESULT_ENUMERATOR

HALVO_BEGIN_DECLS

/* Prints one line on standard output: prefix, a blank and the name of the code.
 *
 * prefix  passed to printf as the format itself, so it must hold no conversion
 * code    an ESMS_* code, or a positive errno value of the System V calls (EPERM, EINTR, E2BIG,
 *         EAGAIN, EACCES, EFAULT, EINVAL, ENOMSG, EIDRM); any other prints " Unknown err <code>"
 * returns the result of the last output call, of no further use */
HALVO_API int printr(const char *prefix, int code) HALVO_NOEXCEPT;

HALVO_END_DECLS

#endif
