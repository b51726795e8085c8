package com.morvesk.halvo.ipc;

import java.io.IOException;
import java.util.Arrays;
import java.util.Objects;

/**
 * A file queue: a persistent queue of byte items in a directory.
 *
 * <pre>{@code
 * FileQueue queue = new FileQueue("/var/q/mo");
 * try (FileQueue.Writer out = queue.writer()) {
 *     out.put(first);
 *     out.put(second);
 *     out.commit();               // readable all at once; without it they are dropped
 * }
 * try (FileQueue.Reader in = queue.reader(2000)) {
 *     for (byte[] item; (item = in.next()) != null;) {
 *         process(item);
 *     }
 *     in.commit();                // consumed; without it they are read again
 * }
 * }</pre>
 *
 * <p>A transaction begins with its first item and from then on locks its side of the queue for all
 * other threads and processes. It must be used by one thread at a time.
 */
public final class FileQueue {
    private final String path;
    private final int channel;

    /**
     * A queue that counts for no channel.
     *
     * @param path the queue path; the queue's files lie beside it
     */
    public FileQueue(String path) {
        this(path, -1);
    }

    /**
     * A queue whose traffic is counted for a channel.
     *
     * @param path    the queue path; the queue's files lie beside it
     * @param channel the channel's number; its read-rate limit applies
     */
    public FileQueue(String path, int channel) {
        this.path = Objects.requireNonNull(path, "path");
        this.channel = channel;
    }

    /**
     * Puts one item, readable at once.
     *
     * @param type 0 to 4095 counts the item for that type; any other does not
     * @param item its bytes, 1 or more
     * @throws IOException when the queue cannot be locked or written; the cause is on the standard
     *     output
     */
    public void put(int type, byte[] item) throws IOException {
        int result = IPCFunctions.writeFileQueue(channel, path, type, item, 0, item.length, false);
        if (result != 0) {
            throw failure("put", result);
        }
    }

    /**
     * A write transaction.
     *
     * @return the transaction, which has not yet begun
     */
    public Writer writer() {
        return new Writer();
    }

    /**
     * A read transaction.
     *
     * @param longestItem bytes of the longest item to expect. A longer one is not read and looks
     *     like the end of the queue
     * @return the transaction, which has not yet begun
     */
    public Reader reader(int longestItem) {
        return new Reader(longestItem);
    }

    private IOException failure(String operation, long result) {
        return new IOException(operation + " " + path + ": result " + result);
    }

    /** A write transaction. After a commit, the next item begins another. */
    public final class Writer implements AutoCloseable {
        private long handle;

        private Writer() {}

        /**
         * Adds an item.
         *
         * @param item its bytes, 1 or more
         * @throws IOException when it cannot be written; the transaction cannot be committed then
         */
        public void put(byte[] item) throws IOException {
            long result;
            if (handle == 0) {
                result = IPCFunctions.writeFileQueueBuf(
                        channel, path, 0, item, 0, item.length, false);
                handle = Math.max(result, 0);
            } else {
                result = IPCFunctions.writeFileQueueBufNext(
                        channel, handle, 0, item, 0, item.length, false);
            }
            if (result < 0) {
                throw failure("put", result);
            }
        }

        /**
         * Makes the items readable, all at once. Without an item it does nothing.
         *
         * @throws IOException when they cannot be made readable
         */
        public void commit() throws IOException {
            if (handle == 0) {
                return;
            }
            int result = IPCFunctions.writeFileQueueBufCommit(channel, handle);
            handle = 0;
            if (result < 0) {
                throw failure("commit", result);
            }
        }

        /** Drops the items that were not committed. */
        @Override
        public void close() {
            if (handle != 0) {
                IPCFunctions.writeFileQueueBufRollback(channel, handle);
                handle = 0;
            }
        }
    }

    /** A read transaction. After a commit, the next item begins another. */
    public final class Reader implements AutoCloseable {
        private final byte[] buffer;
        private long handle;

        private Reader(int longestItem) {
            buffer = new byte[longestItem];
        }

        /**
         * Reads an item. Does not wait for one.
         *
         * @return its bytes; null when there is none to read, for whatever reason
         */
        public byte[] next() {
            boolean read;
            if (handle == 0) {
                handle = IPCFunctions.readFileQueue(channel, path, buffer, 0, buffer.length);
                read = handle != 0;
            } else {
                read = IPCFunctions.readFileQueueNext(
                        channel, path, handle, buffer, 0, buffer.length) == 1;
            }
            return read ? Arrays.copyOf(buffer, IPCFunctions.readFileQueueBytes(handle)) : null;
        }

        /** Consumes the items. Without an item it does nothing. */
        public void commit() {
            commit(0);
        }

        /**
         * Consumes the items and counts errors for the channel. Without an item it does nothing.
         *
         * @param errors how many
         */
        public void commit(int errors) {
            if (handle != 0) {
                IPCFunctions.readFileQueueCommit(channel, handle, errors);
                handle = 0;
            }
        }

        /** Leaves the items that were not committed in the queue. */
        @Override
        public void close() {
            if (handle != 0) {
                IPCFunctions.readFileQueueRollback(channel, handle);
                handle = 0;
            }
        }
    }
}
