package com.morvesk.halvo.ipc;

/**
 * The natives over the shared queues and the file queue.
 *
 * <h2>Conventions</h2>
 * <ul>
 * <li><b>Results</b> are 0 or a positive count, length or time for success and one of the negative
 *     {@code ESMS_} codes for failure. Common to all methods that take a channel:
 *     {@link #ESMS_INVAL} for an unknown channel number. Methods that change or consume a channel
 *     answer {@link #ESMS_ACCESS} when this process does not hold that end of it, and those with
 *     an array {@link #ESMS_FAILED} when there is no memory for its message.
 * <li><b>channel</b> is a number from 0 on, as {@link #channelByName} returns it.
 * <li><b>timeout</b> is in milliseconds. A wait ends at the first pass of the timeout monitor
 *     ({@link #monitorTimeout}) after its time has passed, so up to about 100 ms later, and never
 *     when nothing calls the monitor. A read always waits; for it, 0 or less means until the next
 *     pass. A write with a timeout below 0 does not wait.
 * <li><b>A range</b> (array, offset, length) that receives data must lie in its array, or the
 *     result is {@link #ESMS_INVAL} and nothing happens. A range that supplies data and does not
 *     lie in its array raises {@link ArrayIndexOutOfBoundsException}, but the call goes on with
 *     zeros in place of the data: check such ranges. A null array or a negative length is {@link
 *     #ESMS_INVAL}.
 * <li><b>Strings</b> go to the library in the VM's UTF-8, and names are compared and stored as
 *     those bytes: a Korean name that a C program wrote in EUC-KR is not found by the same name
 *     from here.
 * <li><b>raw</b> asks for the whole slot instead of the message's body: state (4 bytes), 4 reserved
 *     bytes, length (4), type (2), all little-endian, then the body from byte 14 on.
 * <li><b>Threads</b>: any thread may call any method. Threads that share an end of a channel must
 *     take turns; nothing here does that for them. {@link Channel} does.
 * </ul>
 *
 * <p>Diagnostics of the library go to the standard output of the process.
 */
public final class IPCFunctions {
    static {
        NativeLibrary.load();
    }

    /** Success. */
    public static final int ESMS_OK = 0;
    /** A blocking wait ran out of time. */
    public static final int ESMS_TIMEOUT = -1;
    /** No free slot where one is needed. */
    public static final int ESMS_FULL = -2;
    /** Nothing to read, or the read rate is above its limit. */
    public static final int ESMS_EMPTY = -3;
    /** A mutex could not be initialised. */
    public static final int ESMS_MTXINIT = -4;
    /** A lock could not be taken, or the read lock not given back. */
    public static final int ESMS_MTXLOCK = -5;
    /** A lock could not be given back. */
    public static final int ESMS_MTXUNLOCK = -6;
    /** The segment is not attached. */
    public static final int ESMS_NOINIT = -7;
    /** The segment is already attached. */
    public static final int ESMS_ALREADY = -8;
    /** A shared-memory call failed. */
    public static final int ESMS_SHMOP = -9;
    /** Invalid argument: channel, index, length or slot state. */
    public static final int ESMS_INVAL = -10;
    /** General failure. */
    public static final int ESMS_FAILED = -11;
    /** Message longer than the slot allows. */
    public static final int ESMS_EXEED = -12;
    /** A slot needed is held by an uncommitted mark or buffer. */
    public static final int ESMS_PENDING = -13;
    /** Nothing to commit or roll back. */
    public static final int ESMS_NOTARGET = -14;
    /** A blocking wait was interrupted by a signal. */
    public static final int ESMS_JAVAINTR = -15;
    /** Not the registered reader or writer, or the channel could not be opened. */
    public static final int ESMS_ACCESS = -16;
    /** Reserved. */
    public static final int ESMS_STAT = -17;

    private IPCFunctions() {}

    // ---- Start

    /**
     * Starts the library in this process and attaches it to the segment of a key file. Call it
     * once: a process attaches once for its lifetime, and each further call wipes the deadlines of
     * threads that wait at that moment. It starts no thread; see {@link TimeoutMonitor}.
     *
     * @param keyFile path of the key file
     * @return {@link #ESMS_OK}; {@link #ESMS_ALREADY}; {@link #ESMS_SHMOP} when there is no such
     *     segment; {@link #ESMS_MTXLOCK} or {@link #ESMS_MTXUNLOCK}; -1 for a null path
     */
    public static native int initialize(String keyFile);

    /**
     * Whether the process has attached.
     *
     * @return 1 or 0; also 1 after a failed attach
     */
    public static native int initialized();

    /**
     * One pass of the timeout monitor: refreshes the clock of the segment and ends the waits whose
     * time has passed. Some thread must call it periodically, for example every 100 ms.
     *
     * @return 0
     */
    public static native int monitorTimeout();

    // ---- Channels

    /**
     * Finds a channel by its name.
     *
     * @param name the channel's name
     * @return its number; -1 when there is none or nothing is attached; -8 for a null name
     */
    public static native int channelByName(String name);

    /**
     * Opens an end of a channel for this process. One process at a time holds an end; the kernel
     * gives it back when the process dies. Opening an end twice without closing it waits for
     * itself.
     *
     * @param client   the name to show for this process; 23 bytes are kept
     * @param channel  the channel's number
     * @param forWrite true for the writer's end, false for the reader's
     * @param timeout  the longest wait while another process holds the end, in milliseconds
     * @return {@link #ESMS_OK}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS} when refused or out of
     *     time; -8 for a null client
     */
    public static native int openChannel(String client, int channel, boolean forWrite, int timeout);

    /**
     * Gives an end of a channel back, whoever opened it: the caller must hold it.
     *
     * @param channel  the channel's number
     * @param forWrite true for the writer's end, false for the reader's
     * @return {@link #ESMS_OK}; {@link #ESMS_NOINIT}; {@link #ESMS_INVAL}; {@link #ESMS_MTXLOCK}
     *     (reader) or {@link #ESMS_MTXUNLOCK} (writer) when the lock cannot be given back
     */
    public static native int closeChannel(int channel, boolean forWrite);

    // ---- Reading; for the process that holds the reader's end

    /**
     * Takes the next message, waiting for one. It is consumed even when nothing of it can be
     * copied.
     *
     * @param channel the channel's number
     * @param buf     receives the message
     * @param offset  where in the array it begins
     * @param length  the most bytes to copy; a negative length limits nothing
     * @param timeout the longest wait in milliseconds
     * @param raw     true for the whole slot, false for the body
     * @return the message's length in bytes, also when less was copied; {@link #ESMS_TIMEOUT};
     *     {@link #ESMS_JAVAINTR}; {@link #ESMS_ACCESS}; {@link #ESMS_INVAL}, also for a length of 0
     */
    public static native int read(
            int channel, byte[] buf, int offset, int length, int timeout, boolean raw);

    /**
     * {@link #read} through one of the five read buffers: the message is held there and given again
     * by each further call, also after a restart, until {@link #readBufClear}.
     *
     * @param channel  the channel's number
     * @param buf      receives the message
     * @param offset   where in the array it begins
     * @param length   the most bytes to copy; a negative length limits nothing
     * @param timeout  the longest wait in milliseconds
     * @param raw      true for the whole slot, false for the body
     * @param bufIndex the read buffer, 0 to 4
     * @return as {@link #read}; {@link #ESMS_INVAL} for a bad index; {@link #ESMS_MTXLOCK} when
     *     1024 threads of the process wait already
     */
    public static native int readBuf(int channel, byte[] buf, int offset, int length, int timeout,
            boolean raw, int bufIndex);

    /**
     * Empties a read buffer. Does not wait.
     *
     * @param channel  the channel's number
     * @param bufIndex the read buffer, 0 to 4
     * @return {@link #ESMS_OK}; {@link #ESMS_INVAL} for a bad index or an empty buffer;
     *     {@link #ESMS_ACCESS}
     */
    public static native int readBufClear(int channel, int bufIndex);

    /**
     * Marks messages for reading, waiting for the first. Marked messages are looked at with
     * {@link #readMarked}, then released by a commit or handed back by a rollback.
     *
     * @param channel the channel's number
     * @param n       the most messages to mark; 0 or less for all that are there
     * @param timeout the longest wait in milliseconds
     * @return the number marked; 0 when the time ran out, never {@link #ESMS_TIMEOUT};
     *     {@link #ESMS_JAVAINTR}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int readMark(int channel, int n, int timeout);

    /**
     * Copies a marked message; it stays marked. Does not wait.
     *
     * @param channel the channel's number
     * @param index   which one; 0 is the oldest
     * @param buf     receives the message
     * @param offset  where in the array it begins
     * @param length  the most bytes to copy; a negative length limits nothing
     * @param raw     true for the whole slot, false for the body
     * @return the message's length in bytes, also when less was copied; {@link #ESMS_INVAL} also
     *     when the message is not marked or the length is 0; {@link #ESMS_ACCESS}
     */
    public static native int readMarked(
            int channel, int index, byte[] buf, int offset, int length, boolean raw);

    /**
     * Counts the marked messages. Does not wait.
     *
     * @param channel the channel's number
     * @return their number; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int readMarkedCount(int channel);

    /**
     * Hands all marked messages back, to be read again. Does not wait.
     *
     * @param channel the channel's number
     * @return how many; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int readRollback(int channel);

    /**
     * Releases marked messages as consumed and wakes a waiting writer. Does not wait.
     *
     * @param channel the channel's number
     * @param n       how many, from the oldest on; 0 for all
     * @param flagged true to add {@code n} to the channel's error count for each message
     * @return how many were released; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int readCommit(int channel, int n, boolean flagged);

    /**
     * {@link #readCommit} without errors, whatever the code says: no error is recorded. To have
     * errors counted, use {@link #readCommit}.
     *
     * @param channel the channel's number
     * @param n       how many, from the oldest on; 0 for all
     * @param error   a result code as text; not examined
     * @return how many were released; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}; -2 for a null code
     */
    public static native int readCommitWithError(int channel, int n, String error);

    // ---- Writing; for the process that holds the writer's end

    /**
     * Puts one message into the channel and wakes a waiting reader. Waits for room when the timeout
     * is 0 or more.
     *
     * @param channel the channel's number
     * @param type    the message type, 0 to 65535; types 1 to 4095 are also counted by type
     * @param data    holds the message
     * @param offset  where in the array it begins
     * @param length  its length in bytes, 1 to {@link #sizeOfData}
     * @param timeout the longest wait in milliseconds; below 0 not to wait
     * @return {@link #ESMS_OK}; {@link #ESMS_FULL} (without a wait); {@link #ESMS_TIMEOUT};
     *     {@link #ESMS_EXEED} for too long a message; {@link #ESMS_PENDING} when an uncommitted
     *     mark is in the way; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     * @throws InterruptedException when a signal other than the library's own ends the wait
     */
    public static native int write(int channel, int type, byte[] data, int offset, int length,
            int timeout) throws InterruptedException;

    /**
     * Waits until a number of messages can be written.
     *
     * @param channel the channel's number
     * @param n       how many slots must be free, 1 to the ring's size
     * @param timeout the longest wait in milliseconds; below 0 not to wait
     * @return the number of writable slots, at least {@code n} unless the timeout is below 0;
     *     {@link #ESMS_TIMEOUT}; {@link #ESMS_PENDING}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     * @throws InterruptedException when a signal other than the library's own ends the wait
     */
    public static native int writeWait4N(int channel, int n, int timeout)
            throws InterruptedException;

    /**
     * Parks a message in one of the five write buffers, with a slot of the ring kept free for it.
     *
     * @param channel  the channel's number
     * @param type     the message type
     * @param data     holds the message
     * @param offset   where in the array it begins
     * @param length   its length in bytes, 1 to {@link #sizeOfData}
     * @param bufIndex the write buffer, 0 to 4
     * @param timeout  the longest wait for room in milliseconds; below 0 not to wait
     * @return as {@link #write}; {@link #ESMS_PENDING} also when the buffer holds a message;
     *     {@link #ESMS_INVAL} also for a bad index
     * @throws InterruptedException when a signal other than the library's own ends the wait
     */
    public static native int writeBuf(int channel, int type, byte[] data, int offset, int length,
            int bufIndex, int timeout) throws InterruptedException;

    /**
     * Moves a parked message into the ring. Does not wait, and wakes no reader.
     *
     * @param channel  the channel's number
     * @param bufIndex the write buffer, 0 to 4
     * @return {@link #ESMS_OK}; {@link #ESMS_INVAL} also for a bad index or an empty buffer; else
     *     what kept it from being written, and the message stays parked
     */
    public static native int writeBufCommit(int channel, int bufIndex);

    /**
     * Drops a parked message. Does not wait.
     *
     * @param channel  the channel's number
     * @param bufIndex the write buffer, 0 to 4
     * @return {@link #ESMS_OK}; {@link #ESMS_NOTARGET} for an empty buffer; {@link #ESMS_INVAL};
     *     {@link #ESMS_ACCESS}
     */
    public static native int writeBufRollback(int channel, int bufIndex);

    /**
     * Puts one message into the channel without making it readable. One such message stands at a
     * time, until {@link #writeCommit} or {@link #writeRollback}. Waits for room as {@link #write}.
     *
     * @param channel the channel's number
     * @param type    the message type
     * @param data    holds the message
     * @param offset  where in the array it begins
     * @param length  its length in bytes, 1 to {@link #sizeOfData}
     * @param timeout the longest wait in milliseconds; below 0 not to wait
     * @return as {@link #write}; {@link #ESMS_PENDING} while another mark stands
     * @throws InterruptedException when a signal other than the library's own ends the wait
     */
    public static native int writeMark(int channel, int type, byte[] data, int offset, int length,
            int timeout) throws InterruptedException;

    /**
     * Puts one message of a batch into the channel without making it readable. Mark 0 to n - 1,
     * then call {@link #writeCommitAll}. Does not wait. Do not mix with write buffers.
     *
     * @param channel the channel's number
     * @param type    the message type
     * @param data    holds the message
     * @param offset  where in the array it begins
     * @param length  its length in bytes, 1 to {@link #sizeOfData}
     * @param at      its place in the batch, from 0 on
     * @return {@link #ESMS_OK}; {@link #ESMS_FULL}; {@link #ESMS_PENDING}; {@link #ESMS_EXEED};
     *     {@link #ESMS_INVAL} also for a place outside the ring; {@link #ESMS_ACCESS}
     */
    public static native int writeMarkAt(
            int channel, int type, byte[] data, int offset, int length, int at);

    /**
     * Makes the marked message readable and wakes a waiting reader. Does not wait.
     *
     * @param channel the channel's number
     * @return {@link #ESMS_OK}; {@link #ESMS_NOTARGET}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int writeCommit(int channel);

    /**
     * Makes all marked messages readable and wakes a waiting reader. Does not wait.
     *
     * @param channel the channel's number
     * @return {@link #ESMS_OK}, whatever their number; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int writeCommitAll(int channel);

    /**
     * Drops the marked message. Does not wait.
     *
     * @param channel the channel's number
     * @return {@link #ESMS_OK}; {@link #ESMS_NOTARGET}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int writeRollback(int channel);

    /**
     * Drops all marked messages. Does not wait.
     *
     * @param channel the channel's number
     * @return how many; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int writeRollbackAll(int channel);

    // ---- Probes; for any process unless the comment says otherwise. None waits.

    /**
     * Copies the slot at a side's position, header included and whatever its state.
     *
     * @param channel the channel's number
     * @param buf     receives the slot
     * @param offset  where in the array it begins
     * @param length  the most bytes to copy; a negative length limits nothing
     * @param side    0 for the reader's position, which only the reader may ask for; 1 for the
     *     writer's, likewise; any other for the writer's position without that check
     * @return {@link #ESMS_OK}; {@link #ESMS_INVAL}; {@link #ESMS_ACCESS}
     */
    public static native int view(int channel, byte[] buf, int offset, int length, int side);

    /**
     * A status word of the channel.
     *
     * @param channel the channel's number
     * @param what    0: the state of the slot at the read position; 3: time of the last message
     *     put, 4: of the last taken, in seconds since the epoch; any other: the state of the slot
     *     at the write position. States: 0 free, 1 readable, 3 marked by the reader, 5 marked by
     *     the writer
     * @return the word; {@link #ESMS_INVAL}
     */
    public static native int stat(int channel, int what);

    /**
     * The state of a buffer.
     *
     * @param channel  the channel's number
     * @param forWrite true for a write buffer, false for a read buffer
     * @param bufIndex the buffer, 0 to 4; 5 is accepted and tells nothing of use
     * @return 0 empty, 1 holding a message; {@link #ESMS_INVAL}
     */
    public static native int statBuf(int channel, boolean forWrite, int bufIndex);

    /**
     * Whether a side of the channel shows signs of life. On a channel of type 'F' those are the
     * processes of its file queue.
     *
     * @param channel the channel's number
     * @param ignored not used
     * @param side    1 for the writer's side, any other for the reader's
     * @param maxAge  seconds
     * @return 1 when its heartbeat is younger than that, else 0; {@link #ESMS_INVAL}
     */
    public static native int isAlive(int channel, int ignored, int side, int maxAge);

    /**
     * Refreshes the caller's heartbeat.
     *
     * @param channel  the channel's number
     * @param client   the client record to announce this process in, 0 to 9; any other for none
     * @param forWrite true for the writer's side, false for the reader's
     * @return the time in seconds since the epoch; -1 when this process does not hold the end,
     *     which is not asked on a channel of type 'F'; {@link #ESMS_INVAL}
     */
    public static native int touch(int channel, int client, boolean forWrite);

    // ---- Sizes and counts; for any process. None waits.

    /**
     * The size of a slot.
     *
     * @param channel the channel's number
     * @return bytes, header included; {@link #ESMS_INVAL}
     */
    public static native int sizeOfBlock(int channel);

    /**
     * The number of slots that programs plan with.
     *
     * @param channel the channel's number
     * @return the slots of the ring less two; {@link #ESMS_INVAL}
     */
    public static native int countOfBlocks(int channel);

    /**
     * The longest message.
     *
     * @param channel the channel's number
     * @return bytes; {@link #ESMS_INVAL}
     */
    public static native int sizeOfData(int channel);

    /**
     * The messages that wait: in the file queue alone on a channel of type 'F', in the ring and in
     * the file queue on any other.
     *
     * @param channel the channel's number
     * @return their number; {@link #ESMS_INVAL}
     */
    public static native long getCount(int channel);

    /**
     * The messages taken from the ring since the segment was made.
     *
     * @param channel the channel's number
     * @return their number; {@link #ESMS_INVAL}
     */
    public static native long gcount(int channel);

    /**
     * The messages put into the ring since the segment was made.
     *
     * @param channel the channel's number
     * @return their number; {@link #ESMS_INVAL}
     */
    public static native long pcount(int channel);

    /**
     * The messages put of one type, or whether the channel is stalled.
     *
     * @param channel       the channel's number
     * @param typeOrSeconds up to 4095: a message type. Above 4096: a number of seconds. The number
     *     4096 is accepted and tells nothing of use
     * @return for a type its count. For seconds: 0 when nothing waits; the number of waiting
     *     messages when none was taken for longer than that; {@link #ESMS_INVAL} when the channel
     *     is not stalled. {@link #ESMS_INVAL} for a negative number
     */
    public static native long pcountFor(int channel, int typeOrSeconds);

    /**
     * The ratio that is set for a type on a channel.
     *
     * @param channel the channel's number
     * @param type    the message type, 0 to 4095
     * @return the ratio; {@link #ESMS_INVAL}
     */
    public static native long ratio(int channel, int type);

    /**
     * Sets the count of one type, or of every type, to 0. Error counts stay.
     *
     * @param channel the channel's number
     * @param type    the message type, 0 to 4095, or -2 for all
     * @return the count before, 0 for all; {@link #ESMS_INVAL}
     */
    public static native long resetPCountFor(int channel, int type);

    /**
     * Creates a snapshot file if it is not there. Its content is not touched.
     *
     * @param path the file's path
     * @return the number of the descriptor used, 0 or more; {@link #ESMS_NOINIT}; -1 when the file
     *     cannot be opened; -2 for a null path
     */
    public static native int saveSnapshot(String path);

    // ---- File queue
    //
    // chnl    the channel whose file-queue heartbeats and counts are kept; a negative or unknown
    //         number for none
    // handle  an open transaction. Its side of the queue stays locked for all other threads and
    //         processes until it ends. Nothing checks a handle: one that has ended, or that no
    //         method returned, ends the VM.

    /**
     * Puts one item into a file queue, readable at once. Waits without limit while another thread
     * or process writes.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param path   the queue path
     * @param type   0 to 4095 counts the item for that type; any other does not
     * @param data   holds the item
     * @param offset where in the array it begins
     * @param length its length in bytes, 1 or more
     * @param error  true to count it as an error of its type too
     * @return 0; a positive number from 1 to 6 when the queue cannot be locked; -1 when the item
     *     could not be written; -2 for a null path; {@link #ESMS_INVAL}
     */
    public static native int writeFileQueue(
            int chnl, String path, int type, byte[] data, int offset, int length, boolean error);

    /**
     * Begins a write transaction with its first item. Waits without limit while another thread or
     * process writes.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param path   the queue path
     * @param type   not used
     * @param data   holds the item
     * @param offset where in the array it begins
     * @param length its length in bytes, 1 or more
     * @param error  not used
     * @return the handle; a negative number when nothing was begun, -2 for a null path
     */
    public static native long writeFileQueueBuf(
            int chnl, String path, int type, byte[] data, int offset, int length, boolean error);

    /**
     * Adds an item to a write transaction. After a failure to write, the transaction is over, but
     * its handle must still be committed or rolled back.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param handle the transaction
     * @param type   not used
     * @param data   holds the item
     * @param offset where in the array it begins
     * @param length its length in bytes, 1 or more
     * @param error  not used
     * @return the bytes written; a negative number for a failure; {@link #ESMS_INVAL} for the
     *     handle 0
     */
    public static native int writeFileQueueBufNext(
            int chnl, long handle, int type, byte[] data, int offset, int length, boolean error);

    /**
     * Makes the items of a write transaction readable all at once and ends it, whatever the result.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param handle the transaction
     * @return 0; a negative number for a failure; {@link #ESMS_INVAL} for the handle 0
     */
    public static native int writeFileQueueBufCommit(int chnl, long handle);

    /**
     * Drops the items of a write transaction and ends it.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param handle the transaction
     * @return 0; a negative number for a failure; {@link #ESMS_INVAL} for the handle 0
     */
    public static native int writeFileQueueBufRollback(int chnl, long handle);

    /**
     * Begins a read transaction with its first item. Waits without limit while another thread or
     * process reads, but not for an item.
     *
     * @param chnl   the channel to count for, or a negative number; its read-rate limit applies
     * @param path   the queue path
     * @param buffer receives the item's data
     * @param offset where in the array it begins
     * @param length the most bytes; a longer item is not read and stays where it is
     * @return the handle; 0 when nothing was read, whatever the reason; -2 for a null path
     */
    public static native long readFileQueue(
            int chnl, String path, byte[] buffer, int offset, int length);

    /**
     * Reads the next item of a read transaction. The transaction stays open whatever the result.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param path   the queue path
     * @param handle the transaction
     * @param buffer receives the item's data
     * @param offset where in the array it begins
     * @param length the most bytes; a longer item is not read
     * @return 1 for an item read, else 0; -2 for a null path
     */
    public static native long readFileQueueNext(
            int chnl, String path, long handle, byte[] buffer, int offset, int length);

    /**
     * The length of the item that was read last.
     *
     * @param handle a read transaction
     * @return bytes; -1 for a handle of 0 or less
     */
    public static native int readFileQueueBytes(long handle);

    /**
     * Consumes the items of a read transaction and ends it.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param handle the transaction
     * @param errors added to the channel's get errors
     * @return 0, also after a failure; -1 for the handle 0
     */
    public static native int readFileQueueCommit(int chnl, long handle, int errors);

    /**
     * Ends a read transaction; the same items are read again.
     *
     * @param chnl   the channel to count for, or a negative number
     * @param handle the transaction
     * @return 0, also after a failure; -1 for the handle 0
     */
    public static native int readFileQueueRollback(int chnl, long handle);
}
