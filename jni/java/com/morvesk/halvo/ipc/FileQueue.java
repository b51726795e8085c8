package com.morvesk.halvo.ipc;

import java.time.Duration;
import java.util.Arrays;
import java.util.Objects;
import java.util.concurrent.TimeUnit;

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
 * try (FileQueue.Reader in = queue.reader()) {
 *     for (byte[] item; (item = in.next()) != null;) {
 *         process(item);
 *     }
 *     in.commit();                // consumed; without it they are read again
 * }
 * }</pre>
 *
 * <p>A transaction begins with its first item and from then on locks its side of the queue for all
 * other threads and processes, which wait without limit and without looking for interrupts; a virtual
 * thread holds its carrier meanwhile. A thread that would wait for itself gets an {@link
 * IllegalStateException}. A transaction must be used by one thread at a time.
 *
 * <p><b>Deaths.</b> When the process dies before a commit, the items of a write transaction are
 * dropped and those of a read transaction are read again. A put that has returned is in the queue.
 *
 * <p>Paths reach the files in the VM's UTF-8.
 */
public final class FileQueue {
    private static final int USUAL_ITEM = 2000;
    private static final int LONGEST_ITEM = 999_999_977;
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
     * @param item its bytes, 1 to 999999977
     * @throws HalvoException when the queue cannot be locked or written; {@code ESMS_INVAL} for an
     *     empty item
     */
    public void put(int type, byte[] item) throws HalvoException {
        checkItem(item);
        FileQueueTransaction.refuseOwnLock(path, true);
        int result = IPCFunctions.writeFileQueue(channel, path, type, item, 0, item.length, false);
        if (result != 0) { // a failure to lock is a positive number
            throw failure("put into", result > 0 ? FileQueueCalls.LOCK - result : result);
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
     * @return the transaction, which has not yet begun
     */
    public Reader reader() {
        return new Reader(USUAL_ITEM);
    }

    /**
     * A read transaction for items of a known length.
     *
     * @param usualItem bytes of the items to expect. The room for longer ones is made as they come
     * @return the transaction, which has not yet begun
     */
    public Reader reader(int usualItem) {
        return new Reader(Math.max(1, usualItem));
    }

    private HalvoException failure(String operation, int result) {
        return FileQueueTransaction.failure(operation + " " + path, result);
    }

    private void checkItem(byte[] item) throws HalvoException {
        if (item.length == 0 || item.length > LONGEST_ITEM) {
            throw new HalvoException("put into " + path, IPCFunctions.ESMS_INVAL,
                    "an item of " + item.length + " bytes, not 1 to " + LONGEST_ITEM);
        }
    }

    /** A write transaction. After a commit or a rollback, the next item begins another. */
    public final class Writer implements AutoCloseable {
        private final FileQueueTransaction transaction = new FileQueueTransaction(path, true);
        private HalvoException failed;

        private Writer() {}

        /**
         * Adds an item.
         *
         * @param item its bytes, 1 to 999999977
         * @throws HalvoException when it cannot be written: the items before it are lost too, and the
         *     transaction can only be rolled back or closed; {@code ESMS_INVAL} for an empty item,
         *     which changes nothing
         */
        public void put(byte[] item) throws HalvoException {
            checkItem(item);
            transaction.requireUsable();
            requireNotFailed();
            boolean wasOpen = transaction.isOpen();
            int result = FileQueueCalls.add(
                    channel, path, transaction.words, item, 0, item.length);
            transaction.begun(wasOpen);
            if (result < 0) {
                HalvoException failure = failure("put into", result);
                if (wasOpen) {
                    end(false);
                    failed = failure;
                }
                throw failure;
            }
        }

        /**
         * Makes the items readable, all at once. Without an item it does nothing.
         *
         * @throws HalvoException when they cannot be made readable
         */
        public void commit() throws HalvoException {
            transaction.requireUsable();
            requireNotFailed();
            int result = end(true);
            if (result < 0) {
                throw failure("commit to", result);
            }
        }

        /** Drops the items since the last commit. */
        public void rollback() {
            failed = null;
            end(false);
        }

        /** Drops the items that were not committed. */
        @Override
        public void close() {
            if (transaction.close()) {
                end(false);
            }
        }

        private int end(boolean commit) {
            transaction.ending();
            return FileQueueCalls.endWrite(channel, transaction.words, commit);
        }

        private void requireNotFailed() {
            if (failed != null) {
                throw new IllegalStateException("the transaction has failed", failed);
            }
        }
    }

    /** A read transaction. After a commit or a rollback, the next item begins another. */
    public final class Reader implements AutoCloseable {
        private static final long MOST_PAUSE = 20_000_000L; // nanoseconds
        private static final long FIRST_PAUSE = 500_000L;
        private final FileQueueTransaction transaction = new FileQueueTransaction(path, false);
        private byte[] buffer;

        private Reader(int usualItem) {
            buffer = new byte[usualItem];
        }

        /**
         * Reads an item. Does not wait for one.
         *
         * @return its bytes; null when there is none, or the channel's read rate is above its limit
         * @throws HalvoException when the queue cannot be locked or read. The items before it stay
         *     in the transaction
         */
        public byte[] next() throws HalvoException {
            transaction.requireUsable();
            boolean wasOpen = transaction.isOpen();
            int result;
            while (true) {
                result = FileQueueCalls.take(channel, path, transaction.words, buffer);
                if (result != FileQueueCalls.TOO_LONG || buffer.length >= LONGEST_ITEM) {
                    break;
                }
                buffer = new byte[(int) Math.min(LONGEST_ITEM, 2L * buffer.length)];
            }
            transaction.begun(wasOpen);
            if (result < 0) {
                throw failure("read from", result);
            }
            return result == 0 ? null : Arrays.copyOf(buffer, result);
        }

        /**
         * Reads an item, waiting for one. It looks every 20 ms at least.
         *
         * @param timeout the longest wait; 0 or less does not wait
         * @return its bytes; null when none came in time
         * @throws HalvoException as {@link #next}
         * @throws InterruptedException when the thread is interrupted while it waits for an item
         */
        public byte[] poll(Duration timeout) throws HalvoException, InterruptedException {
            long until = ChannelEnd.deadline(timeout);
            for (long pause = FIRST_PAUSE;; pause = Math.min(MOST_PAUSE, 2 * pause)) {
                if (Thread.interrupted()) {
                    throw new InterruptedException(path);
                }
                byte[] item = next();
                long left = until - System.nanoTime();
                if (item != null || left <= 0) {
                    return item;
                }
                TimeUnit.NANOSECONDS.sleep(Math.min(pause, left));
            }
        }

        /**
         * Consumes the items. Without an item it does nothing.
         *
         * @throws HalvoException when they cannot be consumed; they are read again then
         */
        public void commit() throws HalvoException {
            commit(0);
        }

        /**
         * Consumes the items and counts errors for the channel. Without an item it does nothing.
         *
         * @param errors how many
         * @throws HalvoException as {@link #commit()}
         */
        public void commit(int errors) throws HalvoException {
            transaction.requireUsable();
            int result = end(errors, true);
            if (result < 0) {
                throw failure("commit what was read from", result);
            }
        }

        /** Leaves the items since the last commit in the queue. */
        public void rollback() {
            end(0, false);
        }

        /** Leaves the items that were not committed in the queue. */
        @Override
        public void close() {
            if (transaction.close()) {
                end(0, false);
            }
        }

        private int end(int errors, boolean commit) {
            transaction.ending();
            return FileQueueCalls.endRead(channel, transaction.words, errors, commit);
        }
    }
}
