/* Halvo IPC: the guarded interface for C programs.
 *
 * A program calls frx_initialize() once, opens channel ends with frx_openChannel() and then reads
 * and writes. Threads that share an end are serialised by a mutex of that end; blocking calls wait
 * outside it, and a monitor thread ends them in time.
 *
 * Conventions
 *   handle    a FrxChannel of the caller's, which must stay at its address as long as the end is
 *             open: its address is what is recorded and compared.
 *   timeout   milliseconds; a wait ends up to about 100 ms later. For reads 0 or less means until
 *             the next scan of the monitor; for writes a negative timeout means not to wait.
 *   slot      room for the channel's whole slot, frx_sizeOfBlock() bytes, owned by the caller. The
 *             message is found in it through qmsg (segment.h).
 *   data      bytes owned by the caller, copied before the call returns.
 *   results   ESMS_* codes of result.h. Common to all operations on a handle, unless said
 *             otherwise: ESMS_ACCESS when the handle is not the one that opened the end last in
 *             this process, when it is null or names a channel outside 0..255, or when another
 *             process has opened the end since; ESMS_INVAL for an unknown channel or null data or
 *             slot; ESMS_MTXLOCK and ESMS_MTXUNLOCK when the end's mutex fails. Blocking calls
 *             also answer ESMS_TIMEOUT, and ESMS_JAVAINTR when a signal other than SIGUSR2
 *             interrupted the wait.
 *             A wait that another thread's close leaves without its end goes on as long as
 *             nobody else opens it, and answers ESMS_ACCESS when another process has.
 *   cancel    the reads and writes that wait are cancellation points while they sleep: a thread that
 *             is cancelled there withdraws its wait. timeoutLoop() is one in its pauses. In every
 *             other function here a cancellation is put off.
 *   signals   a handler that runs in a call returns: the call's records lie on the thread's stack, and a
 *             longjmp() past it would leave the monitor with what stands there later.
 *   fork      a child has opened nothing and has no monitor: its parent's handles are not valid there
 *             (ESMS_ACCESS). To open ends of its own it calls frx_initialize(), which answers
 *             ESMS_ALREADY, and starts a monitor.
 */
#ifndef HALVO_FRX_H
#define HALVO_FRX_H

#include "halvo/result.h"
#include "halvo/segment.h"

/* A channel end. frx_openChannel() fills both fields. */
typedef struct FrxChannel {
    int32_t channel; /* channel number, 0..255 */
    char side;       /* 'w' the writer's end, any other value the reader's */
} FrxChannel;

HALVO_BEGIN_DECLS

/* ---- Start, open, close ------------------------------------------------------------------ */

/* Starts the library in this process: signal service, attachment, empty table of open ends, one
 * monitor thread. Call it once; each further call empties the table, wipes the waiting threads'
 * deadlines and starts one more monitor thread.
 * keyfile  as init_shm().
 * returns  init_shm()'s result. Because a failed attach keeps the service lock, an unusable key
 *          file answers ESMS_MTXLOCK here, after the line that tells the cause. */
HALVO_API int frx_initialize(const char *keyfile) HALVO_NOEXCEPT;
/* 1 when this process has attached, else 0. */
HALVO_API int frx_initialized(void) HALVO_NOEXCEPT;
/* One pass of the monitor: refreshes the segment's clock and ends overdue waits. Always 0. */
HALVO_API int frx_monitorTimeout(void) HALVO_NOEXCEPT;
/* Body of the monitor thread: a pass every 100 ms for the life of the process. */
HALVO_API void *timeoutLoop(void *unused) HALVO_NOEXCEPT;

/* The number of the channel of that name, or -1. */
HALVO_API int frx_channelByName(const char *name) HALVO_NOEXCEPT;
/* Opens an end and fills the handle. Waits up to `timeout` ms while another process holds the end.
 * client   name to show for this process; 23 bytes are kept. Null counts as "".
 * side     'w' or 'r'.
 * returns  ESMS_OK; ESMS_INVAL for a null handle or an unknown channel; ESMS_ACCESS when refused or
 *          timed out; ESMS_MTXINIT. A new handle replaces the recorded one of that end. */
HALVO_API int frx_openChannel(FrxChannel *handle, const char *client, int channel, char side,
                              int timeout) HALVO_NOEXCEPT;
/* Gives the end back to other processes; returns q_close()'s result. The handle stays recorded: close
 * it once, as q_close() tells. */
HALVO_API int frx_closeChannel(FrxChannel *handle) HALVO_NOEXCEPT;
/* 1 when this very handle opened its end last in this process, else 0. */
HALVO_API int frx_isValid(const FrxChannel *handle) HALVO_NOEXCEPT;
/* Takes and gives back the mutex of the handle's end: 0, or ESMS_MTXLOCK from both. Not
 * recursive: the operations below take it themselves. ESMS_INVAL for an invalid channel. */
HALVO_API int frx_lock(FrxChannel *handle) HALVO_NOEXCEPT;
HALVO_API int frx_unlock(FrxChannel *handle) HALVO_NOEXCEPT;

/* ---- Reading ----------------------------------------------------------------------------- */

/* Takes the next message, waiting for one. Returns its length in bytes; ESMS_FAILED for an error
 * of the ring. */
HALVO_API int frx_read(FrxChannel *handle, void *slot, int timeout);
/* The same through read buffer `index` (0..4): the message is held there, and given again, until
 * frx_readBufClear(). ESMS_FAILED for a bad index. */
HALVO_API int frx_readBuf(FrxChannel *handle, void *slot, int timeout, int index);
/* Empties a read buffer. ESMS_OK; ESMS_INVAL for a bad index or an empty buffer. */
HALVO_API int frx_readBufClear(FrxChannel *handle, int index) HALVO_NOEXCEPT;
/* Marks up to n messages (0 or less: all that are there), waiting for the first. Returns how many;
 * 0 when the time ran out, never ESMS_TIMEOUT. */
HALVO_API int frx_readMark(FrxChannel *handle, int n, int timeout);
/* Copies marked message `index` (0 is the oldest) into slot. ESMS_OK or ESMS_INVAL. */
HALVO_API int frx_readMarked(FrxChannel *handle, int index, void *slot) HALVO_NOEXCEPT;
/* Number of marked messages. */
HALVO_API int frx_readMarkedCount(FrxChannel *handle) HALVO_NOEXCEPT;
/* Hands all marked messages back, to be read again. Returns how many. */
HALVO_API int frx_readRollback(FrxChannel *handle) HALVO_NOEXCEPT;
/* Releases the first n marked messages (0: all) as consumed and wakes a waiting writer. Returns
 * how many. */
HALVO_API int frx_readCommit(FrxChannel *handle, int n) HALVO_NOEXCEPT;

/* ---- Writing ----------------------------------------------------------------------------- */
/* type    message type, 0..65535.
 * length  bytes, 1 .. frx_sizeOfData(). 0 gives ESMS_INVAL, more ESMS_EXEED.
 * A failure of the ring other than ESMS_FULL prints one line and is returned. */

/* Puts one message into the ring and wakes a waiting reader; waits for room when timeout is 0 or
 * more. ESMS_OK, ESMS_FULL (timeout below 0), ESMS_INVAL, ESMS_EXEED, ESMS_PENDING. */
HALVO_API int frx_write(FrxChannel *handle, int type, const void *data, uint32_t length,
                        int timeout);
/* Puts one message into the ring without making it readable. Results as frx_write();
 * ESMS_PENDING while another mark stands. Wakes nobody. */
HALVO_API int frx_writeMark(FrxChannel *handle, int type, const void *data, uint32_t length,
                            int timeout);
/* The same for message `index` of a batch: mark 0 .. n-1, then call frx_writeCommitAll() or
 * frx_writeRollbackAll(). As q_write_mark_at(), which tells the limits. */
HALVO_API int frx_writeMarkAt(FrxChannel *handle, int type, const void *data, uint32_t length,
                              int index, int timeout);
/* Makes the marked message readable and wakes a waiting reader. ESMS_OK or ESMS_NOTARGET. */
HALVO_API int frx_writeCommit(FrxChannel *handle) HALVO_NOEXCEPT;
/* Makes all marked messages readable, in order, and wakes a waiting reader. ESMS_OK, whatever their
 * number. */
HALVO_API int frx_writeCommitAll(FrxChannel *handle) HALVO_NOEXCEPT;
/* Frees the marked message's slot. ESMS_OK or ESMS_NOTARGET. */
HALVO_API int frx_writeRollback(FrxChannel *handle) HALVO_NOEXCEPT;
/* Frees the slots of all marked messages. Returns how many. */
HALVO_API int frx_writeRollbackAll(FrxChannel *handle) HALVO_NOEXCEPT;
/* Parks a message in write buffer `index` (0..4) with a ring slot reserved for it. Results as
 * frx_write(), ESMS_PENDING when the buffer is taken. A mutex that cannot be locked answers
 * ESMS_MTXUNLOCK here. */
HALVO_API int frx_writeBuf(FrxChannel *handle, int type, const void *data, uint32_t length,
                           int index, int timeout);
/* Moves a parked message into the ring; wakes nobody. As q_write_buf_commit(). */
HALVO_API int frx_writeBufCommit(FrxChannel *handle, int index) HALVO_NOEXCEPT;
/* Drops a parked message. As q_write_buf_rollback(). */
HALVO_API int frx_writeBufRollback(FrxChannel *handle, int index) HALVO_NOEXCEPT;

/* ---- In place, bodies alone, many at a time ----------------------------------------------- */
/* These share checks, locks, waits and wake-ups with the calls above. Pairs work as q_peek() and
 * q_release(), q_reserve() and q_publish() of queue.h do: the end's mutex is not held in between, so
 * threads that share an end agree who uses it from the first call to the second. */

/* Gives the address of the next message in the segment, waiting for one: read only, until
 * frx_release(). Returns the length of its body in bytes; ESMS_FAILED for an error of the ring. */
HALVO_API int frx_peek(FrxChannel *handle, const qmsg **slot, int timeout);
/* The same for marked message `index` (0 is the oldest): valid until frx_readCommit() or
 * frx_readRollback(). Returns its body's length in bytes; ESMS_INVAL for a bad index. No wait. */
HALVO_API int frx_peekMarked(FrxChannel *handle, int index, const qmsg **slot) HALVO_NOEXCEPT;
/* Releases the peeked message as consumed, with `error` added to the error count (0: none), and wakes
 * a waiting writer. ESMS_OK; ESMS_NOTARGET when there is no message at the read position. */
HALVO_API int frx_release(FrxChannel *handle, int error) HALVO_NOEXCEPT;
/* Takes the next message, waiting for one, and copies its body alone.
 * type      where its type goes, or null.
 * capacity  bytes of buffer.
 * returns   its length; ESMS_EXEED when it is longer than capacity, and then it stays where it is;
 *           ESMS_FAILED for an error of the ring. */
HALVO_API int frx_readBody(FrxChannel *handle, int *type, void *buffer, uint32_t capacity,
                           int timeout);

/* Gives the address of the slot that the next message goes into, waiting for room as frx_write():
 * `length` bytes may be written from its `data` on. Results as frx_write(). */
HALVO_API int frx_reserve(FrxChannel *handle, uint32_t length, qmsg **slot, int timeout);
/* Makes the body that stands there a readable message and wakes a waiting reader. Does not wait:
 * ESMS_OK, ESMS_FULL, ESMS_INVAL, ESMS_EXEED, ESMS_PENDING. */
HALVO_API int frx_publish(FrxChannel *handle, int type, uint32_t length) HALVO_NOEXCEPT;

/* One message of a batch; `data` is the caller's. */
typedef struct FrxMessage {
    int32_t type;      /* 0..65535 */
    uint32_t length;   /* bytes of the body */
    uint32_t capacity; /* bytes at data; frx_readMany() alone looks at it */
    void *data;
} FrxMessage;

/* Takes up to n messages as frx_readBody() does, waiting for the first one alone, with one lock and one
 * wake-up; fills type, length and the bytes at data of as many records.
 * returns  how many, 1 or more; when there is not one the code of frx_readBody(). It stops in front of
 *          a message that is longer than its record's capacity, and of one whose data is null. */
HALVO_API int frx_readMany(FrxChannel *handle, FrxMessage *messages, int n, int timeout);
/* Puts up to n messages into the ring as frx_write() does, waiting for room for the first one alone,
 * with one lock and one wake-up.
 * returns  how many, 1 or more, fewer than n when the ring is full or the next one cannot be written;
 *          when not one was written the code of frx_write() for the first. */
HALVO_API int frx_writeMany(FrxChannel *handle, const FrxMessage *messages, int n, int timeout);

/* ---- Probes: no check that the handle is the one that opened the end ---------------------- */
/* They and the counts below also serve in a view (q_attach_view() of queue.h), which they leave as it
 * is: no heartbeat is refreshed there, and frx_resetPCountFor() answers ESMS_INVAL. */

/* Copies the slot at the end's position, whatever its state, into buffer (frx_sizeOfBlock()
 * bytes). 0, or ESMS_INVAL. */
HALVO_API int frx_view(const FrxChannel *handle, void *buffer) HALVO_NOEXCEPT;
/* The state of the slot at the end's position (enum halvo_slot_state), or ESMS_INVAL. */
HALVO_API int frx_stat(const FrxChannel *handle) HALVO_NOEXCEPT;
/* The state of buffer slot `index` of the end, or ESMS_INVAL. Indexes 0..5 are accepted; 5 is the
 * slot's room behind the last of the five buffers. */
HALVO_API int frx_statBuf(const FrxChannel *handle, int index) HALVO_NOEXCEPT;
/* 1 when the other end's heartbeat is less than maxAge seconds old, else 0; ESMS_INVAL for an
 * unknown channel. Refreshes the caller's own heartbeat. */
HALVO_API int frx_isCountpartAlive(const FrxChannel *handle, int maxAge) HALVO_NOEXCEPT;

/* ---- Sizes and counts, by channel number: ESMS_INVAL for an unknown channel --------------- */

/* Slot size in bytes, header included. */
HALVO_API int frx_sizeOfBlock(int channel) HALVO_NOEXCEPT;
/* Slots of the ring less two, the number that programs plan with. */
HALVO_API int frx_countOfBlocks(int channel) HALVO_NOEXCEPT;
/* The longest message in bytes. */
HALVO_API int frx_sizeOfData(int channel) HALVO_NOEXCEPT;
/* Messages waiting: in the file queue of an 'F' channel, in the ring of any other. */
HALVO_API int64_t frx_getCount(int channel) HALVO_NOEXCEPT;
/* Messages consumed since the segment was made. */
HALVO_API int64_t frx_gcount(int channel) HALVO_NOEXCEPT;
/* Messages made readable since the segment was made. */
HALVO_API int64_t frx_pcount(int channel) HALVO_NOEXCEPT;
/* Messages made readable of one type, 0..4095; ESMS_INVAL for others. */
HALVO_API int64_t frx_pcountFor(int channel, int type) HALVO_NOEXCEPT;
/* The same, and sets that count to 0. */
HALVO_API int64_t frx_resetPCountFor(int channel, int type) HALVO_NOEXCEPT;

HALVO_END_DECLS

#endif
