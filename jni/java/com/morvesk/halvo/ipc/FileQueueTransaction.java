package com.morvesk.halvo.ipc;

import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;

/** One side of a file queue, held from a transaction's first item to its end. */
final class FileQueueTransaction {
    /** Who holds which locks in this process. A lock is waited for without limit, by its holder too. */
    private static final Map<Integer, Thread> HOLDERS = new ConcurrentHashMap<>();
    private final String path;
    private final boolean forWrite;
    /** The handle, and the key of its lock. */
    final long[] words = new long[2];
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
        }
    }

    static void refuseOwnLock(String path, boolean forWrite) {
        if (!HOLDERS.isEmpty()
                && HOLDERS.get(FileQueueCalls.lockKey(path, forWrite)) == Thread.currentThread()) {
            throw new IllegalStateException("this thread has a "
                    + (forWrite ? "write" : "read") + " transaction on " + path + " already");
        }
    }

    /** Behind a call that may have begun it. */
    void begun(boolean wasOpen) {
        if (!wasOpen && isOpen()) {
            HOLDERS.put((int) words[1], Thread.currentThread());
        }
    }

    /** Before the call that ends it. */
    void ending() {
        if (isOpen()) {
            HOLDERS.remove((int) words[1]);
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
        "FQ_LOCK_FILE", "FQ_LOCK_TABLE", "FQ_LOCK_MUTEX", "FQ_LOCK", "FQ_POSITION_FILE", "FQ_POSITION"
    };
    private static final String[] LOCK_TEXTS = {
        "the lock file cannot be opened; does the directory exist, and may this process write there?",
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
