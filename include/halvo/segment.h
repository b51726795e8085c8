/* Halvo IPC: byte layout of the shared segment.
 *
 * One System V segment holds everything that the processes of a gateway share. The queue manager
 * creates and fills it; the library attaches to it. Every offset and width below is binding,
 * because the processes are built separately and at both word sizes. Integers are little-endian.
 *
 *   segment   +--------------------------------------------------------------+ 0
 *             | halvo_segment: nchnnl, now, qoffs[], qtcnt[4096], uptime     |
 *             +--------------------------------------------------------------+ qoffs[0]
 *             | halvo_channel 0: positions, owners, heartbeats, counters     |
 *             | five read buffers | five write buffers | ring: qcnt slots    |
 *             +--------------------------------------------------------------+ qoffs[1]
 *             | halvo_channel 1 ...                                          |
 *
 *   ring      qstart                                  qend
 *               | _ | _ | R | F | F | W | W | _ | _ | _ |     _ free  F readable
 *                         ^rpos       ^wpos                   R marked W pending
 *
 *   slot      0       4          8     12     14              qbsz
 *             | state | reserved | len | type | body ...      |
 *
 * Ring rule: the slot after offset p is p + qbsz, or qstart when that is at or past qend. All
 * offsets in a channel header count from the start of that channel header.
 *
 * Where things may lie: qbsz is 16 or more, and it and every offset are any number of bytes; a channel
 * exists when its header and its ring (qstart .. qend, behind the header) lie in the segment. Multiples
 * of 4 keep each state in one cache line, and are the faster for it. halvo-qm makes every offset a
 * multiple of 64, but those inside a channel whose slot size is none.
 *
 * The largest message is qbsz - 16 although the body starts at 14: sizeof(qmsg) is 16, every
 * process computes the same limit, so the last two bytes of a slot stay unused.
 */
#ifndef HALVO_SEGMENT_H
#define HALVO_SEGMENT_H

#include "halvo/abi.h"

enum {
    HALVO_TYPES = 4096,       /* counter records per table; record 0 counts every message */
    HALVO_CHANNELS_MAX = 269, /* the offset table must end before qtcnt */
    HALVO_BUFFERS = 5,        /* spare slots per side of a channel, index 0..4 */
    HALVO_CLIENTS = 10,       /* client records per side of a channel, index 0..9 */
    HALVO_NAME_SIZE = 24      /* bytes of a name field, terminator included */
};

/* Slot states. The writer moves 0 to 1, 0 to 5, 5 to 1 and 5 to 0; the reader 1 to 0, 1 to 3,
 * 3 to 0 and 3 to 1. Nobody else changes them. */
enum halvo_slot_state {
    HALVO_SLOT_FREE = 0,     /* shown as '_' */
    HALVO_SLOT_READABLE = 1, /* shown as 'F' */
    HALVO_SLOT_MARKED = 3,   /* shown as 'R': marked by the reader, awaits commit or rollback */
    HALVO_SLOT_PENDING = 5   /* shown as 'W': written under a mark, awaits commit or rollback */
};

/* clang-format off */

/* A slot: header and body. A slot occupies qbsz bytes, so the body goes on behind `data`. */
typedef struct qmsg {
    halvo_i32 state;    /* enum halvo_slot_state */
    halvo_u32 reserved; /* never read or written */
    halvo_u32 len;      /* bytes of the body, 1 .. qbsz - 16 */
    halvo_u16 type;     /* message type, selects a counter record when below 4096 */
    uint8_t data[2];    /* first bytes of the body */
} qmsg;

/* Counter record. One process at a time writes each; a reader of another may see it torn. */
typedef struct halvo_counter {
    halvo_u64 count;             /* messages */
    halvo_u64 ecount;            /* messages counted with an error flag */
    halvo_i32 tinterval;         /* per-type setting, for the live statistics alone */
    halvo_i32 tstart;            /* likewise; non-zero marks a type as in use */
    halvo_i32 ratio;             /* per-type setting, kept for the Java side */
    char tname[HALVO_NAME_SIZE]; /* type name, at most 23 bytes */
} halvo_counter;

/* A process that uses a channel, as it announced itself by `touch`. */
typedef struct halvo_client {
    halvo_i32 pid;
    halvo_i32 reserved1[5];
    halvo_i32 time; /* heartbeat, seconds since the epoch */
    halvo_i32 reserved2[7];
} halvo_client;

/* Channel header. W is written by the writer process, R by the reader process, M by the queue
 * manager, L by the live statistics. Times are seconds since the epoch from the cached clock. */
typedef struct halvo_channel {
    halvo_u32 qcnt;              /* M slots in the ring */
    halvo_u32 qbsz;              /* M slot size in bytes, its 16-byte header included */
    char qname[HALVO_NAME_SIZE]; /* M channel name, NUL-terminated */
    char qtype;                  /* M 'M' has semaphores, 'F' is fed from a file queue */
    char reserved1[3];
    halvo_u32 rbufs;             /* M offset of the five read buffers */
    halvo_u32 wbufs;             /* M offset of the five write buffers */
    halvo_u32 rpos;              /* R offset of the slot the reader takes next */
    halvo_u32 wpos;              /* W offset of the slot the writer fills next */
    halvo_u32 qend;              /* M end of the ring, exclusive */
    halvo_u32 qstart;            /* M offset of the ring's first slot */
    halvo_i32 wtime;             /* W time of the last write-side operation */
    halvo_i32 rtime;             /* R time of the last read-side operation */
    halvo_i32 fwtime;            /* heartbeat of the file-queue writer */
    halvo_i32 frtime;            /* heartbeat of the file-queue reader */
    char pname[HALVO_NAME_SIZE]; /* W writer's name, at most 23 bytes */
    halvo_i32 pidp;              /* W writer's process id; stays after a close */
    char gname[HALVO_NAME_SIZE]; /* R reader's name, at most 23 bytes */
    halvo_i32 pidg;              /* R reader's process id; stays after a close */
    halvo_i32 pidpf;             /* file-queue writer's process id */
    halvo_i32 pidgf;             /* file-queue reader's process id */
    halvo_i32 pbuffs;            /* W messages parked in write buffers */
    halvo_i32 reserved2;
    halvo_i32 wwait;             /* W writers blocked for space, a hint to the reader */
    halvo_i32 rwait;             /* R readers blocked for data, a hint to the writer */
    halvo_counter pcnt;          /* W messages that became readable */
    halvo_counter gcnt;          /* R messages consumed */
    halvo_counter reserved3[3];
    halvo_counter fpcnt;         /* messages put into the file queue */
    halvo_counter fgcnt;         /* messages taken from the file queue */
    halvo_counter tcnt[HALVO_TYPES];      /* W per type; record 0 counts every message */
    halvo_client gclients[HALVO_CLIENTS]; /* reader-side clients */
    halvo_client pclients[HALVO_CLIENTS]; /* writer-side clients */
    halvo_i32 tpsmx;             /* M read-rate limit, messages per second; 0 or less is none */
    halvo_i32 tpsstart;          /* R start of the current rate period */
    halvo_u64 tpsbase;           /* R get count at the start of the rate period */
    halvo_i32 throttled;         /* R 1 while reads are refused, and two seconds longer */
    halvo_i32 throttletime;      /* R time of the last refused read */
    char lasterr[2];             /* last error's result code, no terminator */
    char reserved4[2];
    halvo_i32 errtime;           /* R time of the last counted error */
    halvo_i32 lastin;            /* W time of the last put count */
    halvo_i32 lastout;           /* R time of the last get count */
    halvo_i32 ackq;              /* L channel that counts this one's replies, if greater than 0 */
    halvo_i32 acktype;           /* L type of acknowledgements in `ackq` */
    halvo_i32 rslttype;          /* L type of results in `ackq` */
    char reserved5[28];
} halvo_channel;

/* Segment header. */
typedef struct halvo_segment {
    int32_t reserved1;
    uint32_t nchnnl;                    /* number of channels, 0 .. 269 */
    int32_t now;                        /* cached clock, seconds since the epoch */
    int32_t reserved2;
    uint32_t qoffs[HALVO_CHANNELS_MAX]; /* offset of each channel header in the segment */
    halvo_counter qtcnt[HALVO_TYPES];   /* per-type records of the segment; type names */
    int32_t uptime;                     /* start time of the monitor, seconds since the epoch */
    char reserved3[24];
} halvo_segment;

/* clang-format on */

/* The table of offsets: the one place that states them. */
#define HALVO_FIELD_AT(offset, record, field)                                                      \
    HALVO_STATIC_ASSERT(offsetof(record, field) == (offset), #record "." #field " has moved")
#define HALVO_SIZE_IS(size, record)                                                                \
    HALVO_STATIC_ASSERT(sizeof(record) == (size), "size of " #record " has changed")

HALVO_SIZE_IS(16, qmsg);
HALVO_FIELD_AT(0, qmsg, state);
HALVO_FIELD_AT(8, qmsg, len);
HALVO_FIELD_AT(12, qmsg, type);
HALVO_FIELD_AT(14, qmsg, data);

HALVO_SIZE_IS(52, halvo_counter);
HALVO_FIELD_AT(0, halvo_counter, count);
HALVO_FIELD_AT(8, halvo_counter, ecount);
HALVO_FIELD_AT(16, halvo_counter, tinterval);
HALVO_FIELD_AT(20, halvo_counter, tstart);
HALVO_FIELD_AT(24, halvo_counter, ratio);
HALVO_FIELD_AT(28, halvo_counter, tname);

HALVO_SIZE_IS(56, halvo_client);
HALVO_FIELD_AT(0, halvo_client, pid);
HALVO_FIELD_AT(24, halvo_client, time);

HALVO_SIZE_IS(214112, halvo_segment);
HALVO_FIELD_AT(4, halvo_segment, nchnnl);
HALVO_FIELD_AT(8, halvo_segment, now);
HALVO_FIELD_AT(16, halvo_segment, qoffs);
HALVO_FIELD_AT(1092, halvo_segment, qtcnt);
HALVO_FIELD_AT(214084, halvo_segment, uptime);

HALVO_SIZE_IS(214712, halvo_channel);
HALVO_FIELD_AT(0, halvo_channel, qcnt);
HALVO_FIELD_AT(4, halvo_channel, qbsz);
HALVO_FIELD_AT(8, halvo_channel, qname);
HALVO_FIELD_AT(32, halvo_channel, qtype);
HALVO_FIELD_AT(36, halvo_channel, rbufs);
HALVO_FIELD_AT(40, halvo_channel, wbufs);
HALVO_FIELD_AT(44, halvo_channel, rpos);
HALVO_FIELD_AT(48, halvo_channel, wpos);
HALVO_FIELD_AT(52, halvo_channel, qend);
HALVO_FIELD_AT(56, halvo_channel, qstart);
HALVO_FIELD_AT(60, halvo_channel, wtime);
HALVO_FIELD_AT(64, halvo_channel, rtime);
HALVO_FIELD_AT(68, halvo_channel, fwtime);
HALVO_FIELD_AT(72, halvo_channel, frtime);
HALVO_FIELD_AT(76, halvo_channel, pname);
HALVO_FIELD_AT(100, halvo_channel, pidp);
HALVO_FIELD_AT(104, halvo_channel, gname);
HALVO_FIELD_AT(128, halvo_channel, pidg);
HALVO_FIELD_AT(132, halvo_channel, pidpf);
HALVO_FIELD_AT(136, halvo_channel, pidgf);
HALVO_FIELD_AT(140, halvo_channel, pbuffs);
HALVO_FIELD_AT(148, halvo_channel, wwait);
HALVO_FIELD_AT(152, halvo_channel, rwait);
HALVO_FIELD_AT(156, halvo_channel, pcnt);
HALVO_FIELD_AT(208, halvo_channel, gcnt);
HALVO_FIELD_AT(260, halvo_channel, reserved3);
HALVO_FIELD_AT(416, halvo_channel, fpcnt);
HALVO_FIELD_AT(468, halvo_channel, fgcnt);
HALVO_FIELD_AT(520, halvo_channel, tcnt);
HALVO_FIELD_AT(213512, halvo_channel, gclients);
HALVO_FIELD_AT(214072, halvo_channel, pclients);
HALVO_FIELD_AT(214632, halvo_channel, tpsmx);
HALVO_FIELD_AT(214636, halvo_channel, tpsstart);
HALVO_FIELD_AT(214640, halvo_channel, tpsbase);
HALVO_FIELD_AT(214648, halvo_channel, throttled);
HALVO_FIELD_AT(214652, halvo_channel, throttletime);
HALVO_FIELD_AT(214656, halvo_channel, lasterr);
HALVO_FIELD_AT(214660, halvo_channel, errtime);
HALVO_FIELD_AT(214664, halvo_channel, lastin);
HALVO_FIELD_AT(214668, halvo_channel, lastout);
HALVO_FIELD_AT(214672, halvo_channel, ackq);
HALVO_FIELD_AT(214676, halvo_channel, acktype);
HALVO_FIELD_AT(214680, halvo_channel, rslttype);
HALVO_FIELD_AT(214684, halvo_channel, reserved5);

#undef HALVO_FIELD_AT
#undef HALVO_SIZE_IS

#endif
