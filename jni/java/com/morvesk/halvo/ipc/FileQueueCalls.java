package com.morvesk.halvo.ipc;

/**
 * The natives of {@link FileQueue}. A transaction is two words: its handle, 0 for none, and the number
 * of the lock that it holds. Results are the library's own; a failure n to lock is {@link #LOCK} +
 * n.
 */
final class FileQueueCalls {
    static {
        NativeLibrary.load();
    }

    /** Added to what a failure to lock answers, -1 to -6. */
    static final int LOCK = -20;
    /** The item is longer than the buffer. */
    static final int TOO_LONG = -2;

    private FileQueueCalls() {}

    /** Adds an item, the first of a transaction or a further one. Above 0, or the failure. */
    static native int add(
            int channel, String path, long[] transaction, byte[] item, int offset, int length);

    static native int endWrite(int channel, long[] transaction, boolean commit);

    /** The length of the item read; 0 for none. */
    static native int take(int channel, String path, long[] transaction, byte[] buffer);

    static native int endRead(int channel, long[] transaction, int errors, boolean commit);

    static native int setDurable(boolean durable);

    /** The number of a side's lock, or 0. */
    static native long lockNumber(String path, boolean forWrite);
}
