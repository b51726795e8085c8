/* Halvo IPC: item ids of the live statistics.
 *
 * The Java class com.morvesk.halvo.ipc.LiveStat reads and writes single items of the segment; an
 * item is chosen by one of these numbers. The library exports each as a variable, so that programs
 * that load it at run time can look the numbers up by name. The list stands once; LiveStat.java
 * repeats it for Java. The items are there only in a library that was built with the natives.
 *
 * "Type" items address a counter record: that of a channel, or that of the segment when the channel
 * number is negative. "None" marks numbers that are reserved and accepted by no native.
 */
#ifndef HALVO_LIVESTAT_H
#define HALVO_LIVESTAT_H

#include "halvo/abi.h"

/* clang-format off */
#define HALVO_LIVESTAT_ITEMS(X)                                                                    \
    X(IID_GETB_QMAP,      10000, "getBytes: the segment header")                                   \
    X(IID_GETI_QMAPSZ,    10001, "getInt: bytes of the segment header")                            \
    X(IID_GETB_QSTAT,     10002, "getBytes: a channel header")                                     \
    X(IID_GETI_QSTATSZ,   10003, "getInt: bytes of a channel header")                              \
    X(IID_GETI_QCOUNT,    10004, "getInt: number of channels")                                     \
    X(IID_GETS_QNAME,     10005, "getString: a channel's name")                                    \
    X(IID_SETS_TNAME,     11001, "setString: a type's name")                                       \
    X(IID_GETS_TNAME,     11002, "getString: a type's name")                                       \
    X(IID_GETI_TMAX,      11003, "getInt: number of message types")                                \
    X(IID_GETI_TRATIO,    11004, "getInt: a type's ratio")                                         \
    X(IID_SETI_TRATIO,    11005, "setInt: a type's ratio")                                         \
    X(IID_GETB_COUNTER,   11006, "getBytes: one counter record")                                   \
    X(IID_SETB_COUNTER,   11007, "none")                                                           \
    X(IID_GETI_COUNTERSZ, 11008, "getInt: bytes of a counter record")                              \
    X(IID_GET_Q_RATIO,    11009, "none")                                                           \
    X(IID_SET_Q_RATIO,    11010, "none")                                                           \
    X(IID_SET_TYPE_COUNT, 11011, "none")                                                           \
    X(IID_INC_TYPE_COUNT, 11012, "none")                                                           \
    X(IID_GET_TYPE_COUNT, 11013, "none")                                                           \
    X(IID_GETS_UNAME,     11022, "getString: the host's node name")                                \
    X(IID_GETS_SMSQM,     11023, "getString: the JSON status document")                            \
    X(IID_GETI_TSTART,    11104, "getInt: a type's tstart")                                        \
    X(IID_GETI_TINTERVAL, 11105, "getInt: a type's tinterval; 0 for the segment's types")          \
    X(IID_SETI_TSTART,    11106, "setInt: a type's tstart")                                        \
    X(IID_SETI_TINTERVAL, 11107, "setInt: a type's tinterval")                                     \
    X(IID_GETL_ECOUNT,    11201, "getLong: error count of a channel's get counter")
/* clang-format on */

HALVO_BEGIN_DECLS

#define HALVO_LIVESTAT_DECLARATION(name, value, meaning) HALVO_API extern const int32_t name;
HALVO_LIVESTAT_ITEMS(HALVO_LIVESTAT_DECLARATION)
#undef HALVO_LIVESTAT_DECLARATION

HALVO_END_DECLS

#endif
