/* Halvo IPC: the queue core. Attachment, channel ends, the ring, buffers, counters, the clock,
 * semaphores, and the signal service that gives blocking waits a time limit.
 *
 * C programs normally use the guarded interface in frx.h, which adds per-thread locking, blocking
 * and wake-ups. The functions here never block unless their comment says so.
 *
 * Conventions
 *   channel   a number from 0 to nchnnl - 1.
 *   q         a channel header from q_open() or q_chnnl2q(); it must not be null. It points into
 *             the segment, belongs to it and stays valid until close_shm().
 *   data      bytes owned by the caller, copied before the call returns.
 *   buffer    room for the channel's whole slot, qbsz bytes (header included), owned by the
 *             caller; the message is found in it through qmsg. It stays untouched when nothing
 *             is read.
 *   header    what the channel's header says counts, at each operation. When its ring does not lie
 *             in the segment the operations answer ESMS_INVAL.
 *   results   ESMS_* codes of result.h. A failing operation changes nothing but the heartbeat
 *             (wtime or rtime).
 *
 * One process at a time writes a channel and one reads it; q_open() enforces that. Threads of one
 * process that share a channel end must be serialised by the caller.
 */
#ifndef HALVO_QUEUE_H
#define HALVO_QUEUE_H

#include "halvo/result.h"
#include "halvo/segment.h"

HALVO_BEGIN_DECLS

/* ---- Attachment -------------------------------------------------------------------------- */

/* Attaches this process to the segment of a key file, once for its lifetime.
 *
 * keyfile  path of the key file. The files keyfile, keyfile.post and keyfile.req must exist; every
 *          System V key derives from them. A path that does not fit 2048 bytes with its suffix
 *          fails like a missing file. Null only asks whether this process is attached.
 * returns  ESMS_OK; ESMS_ALREADY when attached before; ESMS_NOINIT for a null path when not
 *          attached; ESMS_SHMOP when there is no such segment; ESMS_MTXLOCK, ESMS_MTXUNLOCK.
 * Prints "SHM_INIT_FINISHED." unless the attach fails, which prints its own line. After a failed
 * attach the service lock stays taken: later calls in this process answer ESMS_MTXLOCK, and
 * init_shm(NULL) answers ESMS_OK. */
HALVO_API int init_shm(const char *keyfile) HALVO_NOEXCEPT;

/* Detaches. No function that takes a channel may run in another thread meanwhile; the monitor and
 * q_settime() may. A process does not attach again: init_shm() keeps answering ESMS_ALREADY.
 * returns  ESMS_OK; ESMS_NOINIT when never attached; ESMS_SHMOP when already detached;
 *          ESMS_MTXLOCK, ESMS_MTXUNLOCK. */
HALVO_API int close_shm(void) HALVO_NOEXCEPT;

/* Looks at the segment that stands under a key file now, without any right to change it: for
 * programs that show it. Read permission is enough. Afterwards q_0(), q_chnnl2q(), q_name2chnnl(),
 * q_snapshot() and the printers of status.h serve, and nothing else of this header: no end can be
 * opened, q_settime() answers -1, and for init_shm(NULL) this process is not attached.
 *
 * Call it again, as often as the status is shown, to notice that the segment was removed or replaced:
 * then the old one is detached, and addresses in it become invalid. No other thread may be in any
 * function of the library meanwhile.
 *
 * keyfile  path of the key file.
 * returns  ESMS_OK when a segment was attached that was not before; ESMS_ALREADY when it is the same
 *          one still, or when this process has attached by init_shm(), which counts; ESMS_SHMOP when
 *          there is nothing to look at, with errno: ENOENT no key file or no segment, EACCES no right
 *          to read it, EINVAL no segment of queues; ESMS_INVAL for null; ESMS_MTXLOCK, ESMS_MTXUNLOCK.
 * init_shm() ends the view and attaches in its usual way; close_shm() ends it too. */
HALVO_API int q_attach_view(const char *keyfile) HALVO_NOEXCEPT;

/* The segment header, or null when never attached. After a close_shm() it is an address where nothing
 * lies any more: use neither it nor q_chnnl2q() then. (A view that has ended leaves null.) */
HALVO_API halvo_segment *q_0(void) HALVO_NOEXCEPT;

/* The header of a channel, or null when never attached. The number is not checked: the caller must
 * hold a number from 0 to nchnnl - 1. */
HALVO_API halvo_channel *q_chnnl2q(int channel) HALVO_NOEXCEPT;

/* The lowest channel number whose name equals `name` byte for byte; -1 when none does, when name
 * is null or when not attached. */
HALVO_API int q_name2chnnl(const char *name) HALVO_NOEXCEPT;

/* The display letter of a slot's state: '_', 'F', 'R', 'W', or 'X' for an unknown state. */
HALVO_API char q_statchr(const qmsg *slot) HALVO_NOEXCEPT;

/* ---- Channel ends ------------------------------------------------------------------------ */

/* Opens one end of a channel. May block without limit while another process, or this one, holds
 * the end; a signal ends the wait.
 *
 * mode     'r' reader, 'w' writer, 'x' observer (takes and records nothing).
 * returns  the channel header; null when not attached, for an unknown channel or mode, or when
 *          the wait failed. All but an unknown mode print one line.
 * The kernel gives the end back when the process dies. */
HALVO_API halvo_channel *q_open(int channel, char mode) HALVO_NOEXCEPT;

/* q_open() with a time limit in milliseconds (0 or less: until the next monitor scan). The limit
 * works only while something drives the timeout monitor: frx_initialize() starts a thread for it,
 * other programs call frx_monitorTimeout(). A timeout answers null, as every failure. */
HALVO_API halvo_channel *q_open_wait(int channel, char mode, int limit) HALVO_NOEXCEPT;

/* Gives an end back; process id and name stay in the header and show the last holder. Nobody looks who
 * calls: close once what this process has opened, for each close admits one process to the end.
 * returns  ESMS_OK; ESMS_NOINIT; ESMS_INVAL for an unknown channel; ESMS_FAILED for an unknown
 *          mode; when the lock cannot be given back ESMS_MTXLOCK for 'r', ESMS_MTXUNLOCK for 'w'. */
HALVO_API int q_close(int channel, char mode) HALVO_NOEXCEPT;

/* What q_recover() did, as bits of its result. */
enum halvo_recovered {
    HALVO_RECOVERED_POSITION = 1, /* moved the end's position to where the slots say it is */
    HALVO_RECOVERED_MARKS = 2,    /* took back marks that nobody will commit any more */
    HALVO_RECOVERED_PARKED = 4    /* put the parked messages right */
};

/* Puts an end right after its last holder died, for the process that has just opened it: call it
 * behind q_open() or frx_openChannel() before the first read or write. A process that died between
 * two stores may have left its position one slot behind, which would stick the ring. Marks that it
 * left are taken back: pending writes vanish, marked messages are read again. A parked message whose
 * commit had brought it into the ring leaves its buffer.
 *
 * mode     'r' or 'w', as opened.
 * returns  0 when all was right, else the bits above; ESMS_NOINIT; ESMS_INVAL for an unknown
 *          channel; ESMS_FAILED for another mode; ESMS_ACCESS when this process does not hold the
 *          end. While the other end's process lives, or when one came meanwhile, it looks for
 *          about 50 ms, half a second at most: the other side may be at work. */
HALVO_API int q_recover(int channel, char mode) HALVO_NOEXCEPT;

/* ---- Semaphores: the plain system calls -------------------------------------------------- */
/* All return 0, or -1 with errno. Channels of a type other than 'M' have no post and request
 * semaphores: -1 with EINVAL. The two posts and waits also answer so for an unknown channel. */

/* Wakes a reader: sets the channel's post semaphore to 1, so that posts merge into one. */
HALVO_API int sem_postx(int channel) HALVO_NOEXCEPT;
/* Wakes a writer: sets the channel's request semaphore to 1. */
HALVO_API int sem_rqst(int channel) HALVO_NOEXCEPT;
/* Blocks without limit until the post semaphore is 1 and takes it; EINTR when a signal arrives. */
HALVO_API int sem_wait4read(int channel) HALVO_NOEXCEPT;
/* The same on the request semaphore. */
HALVO_API int sem_wait4write(int channel) HALVO_NOEXCEPT;
/* Takes semaphore n of a set, with undo at process exit; blocks without limit. */
HALVO_API int sem_mutex_lock(int semid, int n) HALVO_NOEXCEPT;
/* Gives semaphore n of a set back, with undo at process exit. */
HALVO_API int sem_mutex_unlock(int semid, int n) HALVO_NOEXCEPT;

/* How long a blocking call looks for its message or slot before it sleeps: microseconds, 0 to 1000,
 * 0 for not at all. 20 unless the environment's HALVO_SPIN_US says otherwise; 0 on a machine with
 * one processor. Returns what it was. */
HALVO_API int q_set_spin(int microseconds) HALVO_NOEXCEPT;

/* ---- Writing ----------------------------------------------------------------------------- */
/* type    message type; its low 16 bits are stored.
 * length  bytes of the body: 0 gives ESMS_INVAL, more than qbsz - 16 ESMS_EXEED with a line on
 *         standard output. */

/* Puts one message into the ring. Keeps one slot free ahead for every parked message (pbuffs).
 * returns  ESMS_OK, ESMS_INVAL, ESMS_EXEED, ESMS_FULL, or ESMS_PENDING when an uncommitted mark is
 *          in the way. Wakes nobody. */
HALVO_API int q_write(halvo_channel *q, int type, const void *data, uint32_t length) HALVO_NOEXCEPT;

/* Puts one message into the slot at the write position without making it readable. At most one
 * such message stands at a time: a second call gives ESMS_PENDING. Results as q_write(). */
HALVO_API int q_write_mark(halvo_channel *q, int type, const void *data,
                           uint32_t length) HALVO_NOEXCEPT;

/* The same for slot `index` of a batch, counted from the write position behind the slots owed to
 * parked messages. Mark 0 .. n-1, then call q_write_commit_all(). Do not mix with write buffers:
 * with parked messages the batch does not start at the write position and is not committed.
 * returns  as q_write(); ESMS_INVAL when pbuffs + index is not below qcnt. */
HALVO_API int q_write_mark_at(halvo_channel *q, int type, const void *data, uint32_t length,
                              uint32_t index) HALVO_NOEXCEPT;

/* Makes the marked message at the write position readable. ESMS_OK or ESMS_NOTARGET. */
HALVO_API int q_write_commit(halvo_channel *q) HALVO_NOEXCEPT;
/* Makes all marked messages from the write position on readable, one after the other. Always
 * ESMS_OK, whatever their number. */
HALVO_API int q_write_commit_all(halvo_channel *q) HALVO_NOEXCEPT;
/* Frees the marked slot at the write position. ESMS_OK or ESMS_NOTARGET. */
HALVO_API int q_write_rollback(halvo_channel *q) HALVO_NOEXCEPT;
/* Frees all marked slots from the write position on; returns their number. */
HALVO_API int q_write_rollback_all(halvo_channel *q) HALVO_NOEXCEPT;
/* Copies the slot at the write position, whatever its state, into buffer. Always 0. */
HALVO_API int q_writeview(const halvo_channel *q, void *buffer) HALVO_NOEXCEPT;
/* Free slots from the write position on, less pbuffs (so it may be negative), or ESMS_PENDING. */
HALVO_API int q_writable_count(halvo_channel *q) HALVO_NOEXCEPT;

/* ---- Reading ----------------------------------------------------------------------------- */

/* Takes the next message. ESMS_OK; ESMS_EMPTY when there is none or while the read rate is above
 * the channel's limit (tpsmx). Wakes nobody. */
HALVO_API int q_read(halvo_channel *q, void *buffer) HALVO_NOEXCEPT;
/* Copies the slot at the read position, whatever its state, into buffer. Always 0. */
HALVO_API int q_readview(const halvo_channel *q, void *buffer) HALVO_NOEXCEPT;
/* Marks up to n readable messages (0 or less: all) from the read position on; returns how many.
 * 0 while marks stand, or while the read rate is above the limit. */
HALVO_API int q_read_mark(halvo_channel *q, int n) HALVO_NOEXCEPT;
/* Number of marked messages from the read position on. */
HALVO_API int q_read_markedcount(halvo_channel *q) HALVO_NOEXCEPT;
/* Copies marked message `index` (0 is the oldest) into buffer; it stays marked. ESMS_OK, or
 * ESMS_INVAL when that slot is not marked or the index is negative or too great. */
HALVO_API int q_read_markedmsg(halvo_channel *q, int index, void *buffer) HALVO_NOEXCEPT;
/* Releases the first n marked messages (0: all; below 0: one) as consumed. Returns how many.
 * error  added to the channel's error count for each message. */
HALVO_API int q_read_commit(halvo_channel *q, int n, int error) HALVO_NOEXCEPT;
/* The same as q_read_commit(q, n, 0) for any code. A caller who wants errors counted calls
 * q_read_commit(q, n, 1). A null code is ESMS_INVAL and releases nothing. */
HALVO_API int q_read_commit_with_error(halvo_channel *q, int n, const char *code) HALVO_NOEXCEPT;
/* Hands every marked message back, so that it is read again. Returns how many. */
HALVO_API int q_read_rollback(halvo_channel *q) HALVO_NOEXCEPT;

/* ---- Buffers: five parked messages per side, index 0..4 ---------------------------------- */

/* Takes a message into read buffer `index`, or gives the one that is held there again (the ring
 * is then not touched). ESMS_OK, ESMS_EMPTY, ESMS_INVAL for a bad index. */
HALVO_API int q_read_buf(halvo_channel *q, void *buffer, int index) HALVO_NOEXCEPT;
/* Empties a read buffer. ESMS_OK; ESMS_INVAL for a bad index or an empty buffer. */
HALVO_API int q_read_buf_clear(halvo_channel *q, int index) HALVO_NOEXCEPT;
/* Parks a message in write buffer `index` and reserves a ring slot for it. ESMS_OK; ESMS_INVAL,
 * ESMS_EXEED; ESMS_PENDING when the buffer holds a message or a mark is in the way; ESMS_FULL. */
HALVO_API int q_write_buf(halvo_channel *q, int type, const void *data, uint32_t length,
                          int index) HALVO_NOEXCEPT;
/* Moves a parked message into the ring. ESMS_OK; ESMS_INVAL for a bad index or an empty buffer;
 * else what q_write() answered, with a warning line, and the message stays parked. */
HALVO_API int q_write_buf_commit(halvo_channel *q, int index) HALVO_NOEXCEPT;
/* Drops a parked message. ESMS_OK; ESMS_INVAL for a bad index; ESMS_NOTARGET when empty. */
HALVO_API int q_write_buf_rollback(halvo_channel *q, int index) HALVO_NOEXCEPT;

/* ---- In place ----------------------------------------------------------------------------- */
/* Looking at a message where it lies, and building one there, costs no copy. Nothing is held between
 * the two calls of a pair, neither in the segment nor in this process: they are two looks at the slot
 * that the end works on next. So a peeked message is still there for whoever follows a dead reader,
 * and nothing is published when a writer dies before q_publish(). One thread at a time uses an end
 * from the first call to the second.
 *
 * A slot may lie at any address. Its fields are read through qmsg; the body begins at `data`. */

/* Gives the address of the next message, in the segment: read only, and until q_release() or another
 * call that takes it (q_read(), q_read_mark(), q_read_buf()). Another process can damage it meanwhile:
 * use no more than qbsz - 14 bytes of the body, whatever its `len` says.
 * returns  as q_read(): ESMS_OK; ESMS_EMPTY when there is none, when marks stand, or while the read
 *          rate is above the limit; ESMS_INVAL for a null slot. */
HALVO_API int q_peek(halvo_channel *q, const qmsg **slot) HALVO_NOEXCEPT;
/* The same for marked message `index` (0 is the oldest of them): valid until q_read_commit() or
 * q_read_rollback(). So a batch is marked, looked at where it lies, and released as one.
 * returns  ESMS_OK; ESMS_INVAL for a bad index or a null slot. */
HALVO_API int q_peek_marked(halvo_channel *q, int index, const qmsg **slot) HALVO_NOEXCEPT;
/* Frees the message at the read position and counts it as consumed, with `error` added to the error
 * count (0: none). It takes whatever message is the next one: call it behind a q_peek() that found one.
 * returns  ESMS_OK; ESMS_NOTARGET when there is none, or a marked one. */
HALVO_API int q_release(halvo_channel *q, int error) HALVO_NOEXCEPT;

/* Gives the address of the slot that the next message goes into, where `length` bytes of body may be
 * written from `data` on; the other fields are q_publish()'s. Changes nothing in the ring, and keeps
 * nobody from it: any other write of this end uses the same slot.
 * returns  as q_write(): ESMS_OK; ESMS_INVAL for length 0 or a null slot; ESMS_EXEED; ESMS_FULL and
 *          ESMS_PENDING, also for the slots owed to parked messages. */
HALVO_API int q_reserve(halvo_channel *q, uint32_t length, qmsg **slot) HALVO_NOEXCEPT;
/* Makes the body that stands in that slot a readable message. `length` may differ from the reserved
 * one. Room is looked at again: a mark set in between gives ESMS_PENDING.
 * returns  as q_reserve(). */
HALVO_API int q_publish(halvo_channel *q, int type, uint32_t length) HALVO_NOEXCEPT;

/* Takes the next message as q_read() does, but copies its body alone: so many bytes as it has.
 * type      where its type goes, or null.
 * capacity  bytes of buffer.
 * length    where the length of its body goes, or null.
 * returns   as q_read(); ESMS_EXEED when the body is longer than capacity: length then tells how much
 *           is needed, and the message stays where it is; ESMS_INVAL for a null buffer. */
HALVO_API int q_read_body(halvo_channel *q, int *type, void *buffer, uint32_t capacity,
                          uint32_t *length) HALVO_NOEXCEPT;

/* ---- Clock, counters, snapshots ---------------------------------------------------------- */

/* Refreshes the cached clock of the segment. Returns it in seconds since the epoch, -1 when not
 * attached. */
HALVO_API int q_settime(void) HALVO_NOEXCEPT;
/* The cached clock: as fresh as the last q_settime() of any attached process. 0xFFFFFFFF when not
 * attached. */
HALVO_API uint32_t q_gettime(void) HALVO_NOEXCEPT;
/* Counts a message that became readable, in total and for the slot's type; flag not 0 counts it as
 * an error too. For the channel's writer. */
HALVO_API void q_pcount_up(halvo_channel *q, const qmsg *slot, int flag) HALVO_NOEXCEPT;
/* Counts a consumed message and adds `error` to the error count. slot is not read. For the
 * channel's reader. */
HALVO_API void q_gcount_up(halvo_channel *q, const qmsg *slot, int error) HALVO_NOEXCEPT;
/* Messages counted for a type; 0 outside 0..4095. */
HALVO_API int64_t q_pcount_per_type(const halvo_channel *q, int type) HALVO_NOEXCEPT;
/* Messages waiting: in the channel's file queue plus in its ring. */
HALVO_API int64_t q_getcount(const halvo_channel *q) HALVO_NOEXCEPT;
/* The current read rate in messages per second, an average over at most 20 seconds; may begin a
 * new period. For the channel's reader. */
HALVO_API int64_t q_check_tps(halvo_channel *q) HALVO_NOEXCEPT;

/* Copies the segment header and every channel header, not the messages, into buffer.
 * size     bytes of buffer; nchnnl * sizeof(halvo_channel) + sizeof(halvo_segment) are needed.
 * returns  0; -1 when not attached; -2 when too small. The buffer is cleared first. */
HALVO_API int q_snapshot(void *buffer, int size) HALVO_NOEXCEPT;
/* Writes `length` bytes into a file, created with 0666 before the umask and not truncated.
 * returns  the number of the descriptor used (already closed), the negative result of open, or -2
 *          for a null path. A failed write is not reported. */
HALVO_API int q_save_snapshot(const void *buffer, int length, const char *path) HALVO_NOEXCEPT;
/* Reads a file of exactly `length` bytes into buffer.
 * returns  length; -1 when the file has another size or is missing; -2 for a null path; -3 for a
 *          length of 0 or less; -5 for a short read; the negative result of open. */
HALVO_API int q_load_snapshot(void *buffer, int length, const char *path) HALVO_NOEXCEPT;

/* ---- Signal service and waiting threads -------------------------------------------------- */
/* A thread registers before it waits; the monitor sends SIGUSR2 to each thread whose deadline has
 * passed, and the interrupted system call ends the wait. SIGUSR2 belongs to the library. */

/* Creates the thread-specific slot, empties the registry, installs the handler, prints a banner.
 * Each call does it all again: threads that wait at that moment lose their time limit. */
HALVO_API void init_sig(void) HALVO_NOEXCEPT;
/* Installs the handler for SIGUSR2, without restart. 0; ends the process with status -1 when the
 * handler cannot be installed. */
HALVO_API int install_handler(void) HALVO_NOEXCEPT;
/* The handler: records the signal's number for the calling thread. */
HALVO_API void signal_handler(int number) HALVO_NOEXCEPT;
/* The same with a line on standard output, for diagnosis; nothing installs it. */
HALVO_API void signal_handler2(int number) HALVO_NOEXCEPT;
/* The signal caught on this thread since its last registration: 12 after the monitor ended its
 * wait, otherwise 0. */
HALVO_API int getSignal(void) HALVO_NOEXCEPT;
/* Registers the calling thread with a deadline `timeout` milliseconds from now by the wall clock (0
 * or less: due at the next scan). Installs the handler if nobody has. Returns the entry's index,
 * 0..1023, or -1 when all are taken: the wait then has no time limit. */
HALVO_API int reg_wait_thread(int timeout) HALVO_NOEXCEPT;
/* Removes the calling thread's first registration. Returns its index, or -1 when it has none, as
 * after the monitor has fired it. */
HALVO_API int unreg_wait_thread(void) HALVO_NOEXCEPT;
/* One scan of the registry: signals every overdue thread. Then makes good what waits in progress
 * have lost: a signal, a post. Always 0. */
HALVO_API int monitorTimeout(void) HALVO_NOEXCEPT;

HALVO_END_DECLS

#endif
