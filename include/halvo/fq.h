/* Halvo IPC: the file queue, a persistent first-in-first-out queue of byte items in a directory.
 *
 * A queue is named by its queue path, for instance /var/q/mo; its files lie beside that name:
 *
 *     /var/q/mo.000000012   data files: items one after another, numbered by their file order
 *     /var/q/mo.tail        log of the writer's positions      /var/q/mo.wrlk  the writers' lock
 *     /var/q/mo.head        log of the reader's positions      /var/q/mo.rdlk  the readers' lock
 *
 * One writer and one reader work on a queue at the same time; further ones, threads and processes
 * alike, wait for their side. Items of a transaction become readable all at once at its commit, and
 * are consumed only by the reader's commit: a reader that dies gets them again. Nothing is forced
 * to the disk (no fsync), unless a process asks for it: see fq_set_durability.
 *
 *     fqtrans t;
 *     if (fq_enqueue(-1, "/var/q/mo", a, alen, &t) > 0 && fq_enqueue_next(-1, b, blen, &t) > 0)
 *         fq_enqueue_commit(-1, &t);
 *
 *     char item[20 + 2000 + 2];
 *     if (fq_dequeue(-1, "/var/q/mo", item, 2000, &t) > 0) {
 *         use(item + 20, t.itemlen);
 *         fq_dequeue_commit(-1, &t);
 *     }
 *
 * Conventions
 *   path     queue path, at most FQ_PATH_MAX bytes. A null, longer or otherwise unusable argument
 *            is answered with ESMS_INVAL (-10), or -1 where that is the only failure; nothing is
 *            opened then.
 *   trans    a transaction record of the caller's. The calls that begin a transaction fill it; it
 *            must stay until the transaction has ended and may be ended by another thread.
 *   chnnl    number of the channel whose file-queue fields (heartbeats, process ids, counters) are
 *            kept up to date; a negative or unknown number, or no attached segment, is none.
 *   data     bytes of an item, owned by the caller, 1 .. FQ_ITEM_MAX of them. A length of 0 is
 *            refused, because such an item would end its data file for every reader.
 *   buf      room for an item as it lies on disk: a 20-byte header, cap bytes of data, 2 bytes. The
 *            data begins at byte 20; its length is trans->itemlen. It may be written to even when
 *            nothing is read.
 *   results  0 or a positive number for success, negative for failure, with a line on standard
 *            output. Failures are not retried.
 *   files    What the path names when a transaction begins is the queue, for lock file, position
 *            file and data file; a relative path counts from the directory where it was begun. A
 *            commit answers 0 only for items in the file that the path still names. Files stay open
 *            for the next transaction, three to a side, of up to 32 sides that are idle, with
 *            descriptors in the upper half of what the process may open; so a deleted data file may
 *            take up its disk space until the next transaction on its side.
 *   waiting  fq_lock, fq_enqueue, fq_enqueue_away and fq_dequeue block without limit while another
 *            thread or process holds the side. Everything else returns at once. What the system
 *            takes for a deadlock of processes is waited for as well, unless the calling thread
 *            holds a side itself and that has lasted ten seconds: that is a failure (-4). A thread
 *            that begins a transaction on a side that it holds waits until another ends the first.
 *   cancel   no function here is a cancellation point: a cancelled thread makes its call to the end,
 *            the wait for a side included, and ends at its next cancellation point behind it. A
 *            transaction that is open then stays open until another thread ends it.
 */
#ifndef HALVO_FQ_H
#define HALVO_FQ_H

#include <pthread.h>

#include "halvo/result.h"

enum {
    FQ_PATH_MAX = 4090,     /* bytes of a queue path */
    FQ_NAME_SIZE = 4096,    /* room for what fq_dirof and fq_nameof write */
    FQ_POSITION_SIZE = 31,  /* bytes of a position record */
    FQ_ITEM_EXTRA = 22,     /* bytes of an item besides its data: header and trailer */
    FQ_ITEM_MAX = 999999977 /* bytes of data in an item: its end must be a 9-digit offset */
};

enum {
    FQ_DURABILITY_NONE = 0,  /* nothing is forced to the disk */
    FQ_DURABILITY_COMMIT = 1 /* what was answered with success survives a power loss */
};

/* A transaction: one side of a queue, locked. Between the calls the position records hold a NUL
 * instead of the blanks behind file order and offset. */
typedef struct fqtrans {
    char path[4100];                 /* queue path, NUL-terminated */
    int lockfd;                      /* the lock file; below 1 when nothing is locked */
    int lockkey;                     /* key of the in-process mutex */
    int posfd;                       /* the side's position file; below 1 when none */
    char startpos[FQ_POSITION_SIZE]; /* where the transaction began */
    char curpos[FQ_POSITION_SIZE];   /* where the last item was written or read */
    char nextpos[FQ_POSITION_SIZE];  /* behind that item: what a commit saves */
    int itemlen;                     /* bytes of data in the last item */
    int count;                       /* items written or read */
    int errcnt;                      /* set by the caller before a commit: failed items */
    pthread_mutex_t *mtx;            /* the in-process mutex */
} fqtrans;

#ifdef __i386__
HALVO_STATIC_ASSERT(offsetof(fqtrans, lockfd) == 4100, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, lockkey) == 4104, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, posfd) == 4108, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, startpos) == 4112, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, curpos) == 4143, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, nextpos) == 4174, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, itemlen) == 4208, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, count) == 4212, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, errcnt) == 4216, "fqtrans has changed");
HALVO_STATIC_ASSERT(offsetof(fqtrans, mtx) == 4220, "fqtrans has changed");
HALVO_STATIC_ASSERT(sizeof(fqtrans) == 4224, "fqtrans has changed");
#endif

HALVO_BEGIN_DECLS

/* ---- Writing ----------------------------------------------------------------------------- */

/* Begins a transaction with its first item.
 * returns  bytes written (len + 22), the writer's side then locked; ESMS_INVAL; what fq_lock
 *          answered; -1 when the item could not be written. Unlocked after every failure. */
HALVO_API int fq_enqueue(int chnnl, const char *path, const void *data, unsigned len,
                         fqtrans *trans) HALVO_NOEXCEPT;
/* Adds an item. returns as fq_enqueue; every failure ends the transaction and gives the side back:
 * a commit of it then fails and changes nothing. ESMS_INVAL also for a record without a lock. */
HALVO_API int fq_enqueue_next(int chnnl, const void *data, unsigned len,
                              fqtrans *trans) HALVO_NOEXCEPT;
/* Makes the items readable, saves the writer's position and gives the side back, in every case.
 * returns  fq_unlock's result; what fq_write_item_commit or fq_set_pos answered when they failed.
 *          After a failure to save the position the items may be readable all the same. */
HALVO_API int fq_enqueue_commit(int chnnl, fqtrans *trans) HALVO_NOEXCEPT;
/* Gives the side back; the items never become readable. returns fq_unlock's result. */
HALVO_API int fq_enqueue_rollback(int chnnl, fqtrans *trans) HALVO_NOEXCEPT;
/* Puts one item, readable at once, in a transaction of its own.
 * type     0..4095: the channel's count for that type is raised; any other number: none is.
 * success  0 counts the item as an error of its type too.
 * returns  0; ESMS_INVAL; fq_lock's failure as a positive number (1..6); -1. */
HALVO_API int fq_enqueue_away(int chnnl, int type, int success, const char *path, const void *data,
                              unsigned len) HALVO_NOEXCEPT;

/* ---- Reading ----------------------------------------------------------------------------- */

/* Begins a transaction with its first item.
 * returns  above 0: an item was read, the reader's side is locked. Otherwise nothing is locked:
 *          0 nothing to read; ESMS_EMPTY the channel's read rate is above its limit; -1 damage; -2
 *          the item is larger than cap (and stays); ESMS_INVAL; what fq_lock answered. */
HALVO_API int fq_dequeue(int chnnl, const char *path, void *buf, unsigned cap,
                         fqtrans *trans) HALVO_NOEXCEPT;
/* Reads the next item. The side stays locked whatever the result, which is as fq_dequeue's. */
HALVO_API int fq_dequeue_next(int chnnl, const char *path, fqtrans *trans, void *buf,
                              unsigned cap) HALVO_NOEXCEPT;
/* Saves the reader's position, deletes a data file that was read to its end, gives the side back.
 * Adds errcnt to the channel's get errors.
 * returns  fq_unlock's result, or -1 when nothing was read (the side is then given back too) or
 *          trans is null. A position that could not be saved is only printed. */
HALVO_API int fq_dequeue_commit(int chnnl, fqtrans *trans) HALVO_NOEXCEPT;
/* Gives the side back; the same items are read again. returns fq_unlock's result, -1 for null. */
HALVO_API int fq_dequeue_rollback(int chnnl, fqtrans *trans) HALVO_NOEXCEPT;

/* ---- Durability -------------------------------------------------------------------------- */

/* What the transactions of this process promise from now on, on all queues and threads; at first
 * what the environment variable HALVO_FQ_DURABILITY says ("none", "commit"), else nothing is forced.
 * With FQ_DURABILITY_COMMIT every commit and single shot waits for the disk: once for a single item
 * and for a reader's commit, three times for a batch, more where a data file begins or ends. Both
 * sides of a queue must ask for it. A failure to force is the failure of the call: -1, and items
 * that were written may be readable all the same. The item functions below force nothing on a
 * record that fq_lock has not filled.
 * returns  0, or ESMS_INVAL for any other mode. Any thread, at any time. */
HALVO_API int fq_set_durability(int mode) HALVO_NOEXCEPT;

/* ---- Locks ------------------------------------------------------------------------------- */

/* Takes one side of a queue and reads its position into startpos and curpos.
 * mode     'w' the writer's side, any other the reader's.
 * trans    zero-filled but for `path`.
 * returns  31; ESMS_INVAL for a null record or too long a path; -1 the lock file could not be
 *          opened; -2 more than 256 lock files in this process; -3 mutex; -4 file lock, or a signal
 *          ended the wait for it; -5 position file; -6 the position could not be read. Nothing is
 *          held after a failure. A last record that cannot be read gives way to the one before. */
HALVO_API int fq_lock(char mode, fqtrans *trans) HALVO_NOEXCEPT;
/* Gives a side back: position file, file lock, mutex; each step is tried.
 * returns  0, or the code of the last failure: -1 no position file, -5 no lock file, -4 file lock,
 *          -3 no mutex, -2 mutex; ESMS_INVAL for null. */
HALVO_API int fq_unlock(fqtrans *trans) HALVO_NOEXCEPT;
/* Empties the table of mutexes. The library calls it once; a call while a transaction is open
 * anywhere in the process breaks that transaction's lock. */
HALVO_API void fq_mtx_init(void) HALVO_NOEXCEPT;
/* The mutex of a key, made at its first use and never freed. Null for key 0, when 256 other keys
 * are in use, and when it cannot be made. */
HALVO_API pthread_mutex_t *fq_key2mtx(int key) HALVO_NOEXCEPT;

/* ---- Items: the steps of the transactions, on a record that fq_lock has filled -------------- */
/* `path` is the queue path, normally trans->path. Each write returns the bytes written (len + 22),
 * ESMS_INVAL, or -1 after a line; a short write leaves its bytes where they are. */

/* Writes an uncommitted item at curpos and sets nextpos behind it. Never begins a new file. */
HALVO_API int fq_write_item(const char *path, fqtrans *trans, const void *data,
                            unsigned len) HALVO_NOEXCEPT;
/* The same with an item that is readable at once. When the file is then longer than 5000000 bytes
 * it is ended, and nextpos is the start of the next file. */
HALVO_API int fq_write_item_once(const char *path, fqtrans *trans, const void *data,
                                 unsigned len) HALVO_NOEXCEPT;
/* Appends a readable item to the end of the current file, wherever curpos stands; ends the file
 * as above. Does not count the item. -1 also when the file held more than curpos says. */
HALVO_API int fq_append_item(const char *path, fqtrans *trans, const void *data,
                             unsigned len) HALVO_NOEXCEPT;
/* Makes the items of a transaction readable, the first one last, and ends the file when it is
 * longer than 5000000 bytes.
 * returns  0; -1 after a line; -2 when an item's header could not be read. */
HALVO_API int fq_write_item_commit(fqtrans *trans) HALVO_NOEXCEPT;
/* Reads the item at curpos, stepping over ended files and damaged items; curpos moves with it, and
 * nextpos is set behind the item.
 * returns  length + 25 (a positive count, not the item's size); 0 nothing to read; -1 error; -2
 *          cap too small; -100 an incomplete item older than a second; ESMS_INVAL. */
HALVO_API int fq_read_item(const char *path, fqtrans *trans, void *buf,
                           unsigned cap) HALVO_NOEXCEPT;

/* ---- Files and positions ------------------------------------------------------------------- */

/* Copies the part of path before its last '/' into dir: "." without one, "" for "/mo".
 * dir      FQ_NAME_SIZE bytes; a longer result is cut to fit. Always returns 1. */
HALVO_API int fq_dirof(const char *path, char *dir) HALVO_NOEXCEPT;
/* Copies the part of path after its last '/' into name, likewise. Always returns 1. */
HALVO_API int fq_nameof(const char *path, char *name) HALVO_NOEXCEPT;
/* The number after the last '.' of a file name, 0 when there is none. */
HALVO_API int fq_forderof(const char *filename) HALVO_NOEXCEPT;
/* The smallest file order among the queue's data files; -1 when there is none, when the directory
 * cannot be read and for an unusable path. Orders of ten digits or without a leading zero are
 * not found. */
HALVO_API int fq_find_forder_first(const char *path) HALVO_NOEXCEPT;
/* The largest one; 0 when there is none, -1 as above. */
HALVO_API int fq_find_forder_last(const char *path) HALVO_NOEXCEPT;
/* Reads the last record of a position file. A file without a whole record gets one first: the
 * highest file order for mode 'w', the lowest for any other, offset 0.
 * fd       the position file, open for reading and writing
 * record   31 bytes, as in the file (blanks behind the numbers)
 * returns  31, or -1 */
HALVO_API int fq_get_pos(const char *path, int fd, char *record, char mode) HALVO_NOEXCEPT;
/* Appends a record, over the torn end of the last one if there is any.
 * record   31 bytes; bytes 9 and 19 are NUL afterwards
 * returns  31, or -1 */
HALVO_API int fq_set_pos(int fd, char *record) HALVO_NOEXCEPT;

HALVO_END_DECLS

#endif
