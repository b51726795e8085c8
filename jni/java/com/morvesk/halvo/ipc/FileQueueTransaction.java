package com.morvesk.halvo.ipc;

import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;

/** One side of a file queue, held from a transaction's first item to its end. */
final class FileQueueTransaction {
    /** Who holds which locks in this process. Its own holder would wait for a lock, too. */
    private static final Map<Long, Thread> HOLDERS = new ConcurrentHashMap<>();
    private final String path;
    private final boolean forWrite;
    /** The handle, and the number of its lock. */
    final long[] words = new long[2];
    private Thread holder;
    private boolean closed;

    FileQueueTransaction(String path, boolean forWrite) {
        this.path = path;
        this.forWrite = forWrite;
    }

    boolean isOpen() {
        return words[0] != 0;
    }

    void requireUsable() {
        if (closed) {
            throw new IllegalStateException("the transaction on " + path + " is closed");
        }
        if (!isOpen()) {
            refuseOwnLock(path, forWrite);
        } else if (holder != Thread.currentThread()) { // it was handed over
            hold();
        }
    }

    private void hold() {
        holder = Thread.currentThread();
        HOLDERS.put(words[1], holder);
    }

    static void refuseOwnLock(String path, boolean forWrite) {
        if (!HOLDERS.isEmpty()
                && HOLDERS.get(FileQueueCalls.lockNumber(path, forWrite)) == Thread.currentThread()) {
            throw new IllegalStateException("this thread has a "
                    + (forWrite ? "write" : "read") + " transaction on " + path + " already");
        }
    }

    /** Behind a call that may have begun it. */
    void begun(boolean wasOpen) {
        if (!wasOpen && isOpen()) {
            hold();
        }
    }

    /** Before the call that ends it. */
    void ending() {
        if (isOpen()) {
            HOLDERS.remove(words[1], holder); // a failure may have given the lock to another thread
        }
    }

    /** Whether it was not closed before. */
    boolean close() {
        boolean first = !closed;
        closed = true;
        return first;
    }

    // ---- Failures

    private static final String[] LOCK_NAMES = {
        "FQ_LOCK_FILE", "FQ_LOCK_TABLE", "FQ_LOCK_MUTEX", "FQ_LOCK", "FQ_POSITION_FILE",
        "FQ_POSITION"
    };
    private static final String[] LOCK_TEXTS = {
        "the lock file cannot be opened: is the directory there, and may this process write to it?",
        "more than 256 lock files in this process",
        "the lock within the process failed",
        "the file lock failed, or a signal ended the wait for it",
        "the position file cannot be opened",
        "the position cannot be read"
    };

    /** The exception for a result of {@link FileQueueCalls}. */
    static HalvoException failure(String operation, int result) {
        if (result == IPCFunctions.ESMS_INVAL) {
            return new HalvoException(operation, result);
        }
        int lock = FileQueueCalls.LOCK - result;
        if (lock > 0 && lock <= LOCK_NAMES.length) {
            return new HalvoException(
                    operation, -lock, LOCK_NAMES[lock - 1], LOCK_TEXTS[lock - 1]);
        }
        return new HalvoException(operation, result, "FQ_FAILED",
                "the files cannot be read or written, or are damaged;"
                        + " the standard output has the cause");
    }
}
