package com.morvesk.halvo.ipc;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.Arrays;

/**
 * Messages that are written together: a transaction of a writing {@link Channel}.
 *
 * <pre>{@code
 * try (Batch batch = out.batch()) {
 *     batch.write(1, first);
 *     batch.write(1, second);
 *     batch.commit(Duration.ofSeconds(1));   // without it nothing is written
 * }
 * }</pre>
 *
 * <p>The messages stay in this process until the commit, which waits for room for all of them and
 * then makes them readable, one after another in their order. When it fails, it has written none.
 * Only when the process dies in the middle of the commit can the reader have got the first ones
 * without the rest; never one twice, nor one without those before it. A process that dies before
 * the commit has written none.
 *
 * <p>One thread at a time may use a batch. Other threads may use the channel meanwhile.
 */
public final class Batch implements AutoCloseable {
    private static final int HEADER = 8; // length and type
    private static final int FIRST_SIZE = 1024;
    private static final int MOST_BYTES = 1 << 30;
    private final ChannelEnd end;
    private final int slots;
    private byte[] staged = new byte[FIRST_SIZE];
    private int used;
    private int count;
    private boolean closed;

    Batch(ChannelEnd end) {
        this.end = end;
        slots = end.slots();
    }

    /**
     * Adds a message. Does not wait.
     *
     * @param type the message type, 0 to 65535
     * @param body the message's bytes, 1 to {@link Channel#longestMessage}
     * @throws HalvoException {@code ESMS_EXEED} for too long a message, {@code ESMS_INVAL} for an
     *     empty one, {@code ESMS_FULL} for more messages than the channel has slots; the batch is
     *     as before
     */
    public void write(int type, byte[] body) throws HalvoException {
        write(type, body, 0, body.length);
    }

    /**
     * Adds a message that is part of an array.
     *
     * @param type   the message type, 0 to 65535
     * @param data   holds the message
     * @param offset where in the array it begins
     * @param length its length in bytes
     * @throws HalvoException as {@link #write(int, byte[])}
     */
    public void write(int type, byte[] data, int offset, int length) throws HalvoException {
        requireOpen();
        Channel.checkMessage(end, type, data, offset, length);
        if (count == slots) {
            throw full("the channel has " + slots + " slots");
        }
        if (length > MOST_BYTES - HEADER - used) {
            throw full("more than " + MOST_BYTES + " bytes in one batch");
        }
        if (used + HEADER + length > staged.length) {
            long wanted = Math.max(2L * staged.length, (long) used + HEADER + length);
            staged = Arrays.copyOf(staged, (int) Math.min(MOST_BYTES, wanted));
        }
        put(used, length);
        put(used + 4, type);
        System.arraycopy(data, offset, staged, used + HEADER, length);
        used += HEADER + length;
        count++;
    }

    private HalvoException full(String text) {
        return new HalvoException("add to a batch for " + end.name, IPCFunctions.ESMS_FULL, text);
    }

    private void put(int at, int value) {
        staged[at] = (byte) value;
        staged[at + 1] = (byte) (value >> 8);
        staged[at + 2] = (byte) (value >> 16);
        staged[at + 3] = (byte) (value >> 24);
    }

    /**
     * The number of messages added since the last commit.
     *
     * @return their number
     */
    public int size() {
        return count;
    }

    /**
     * Writes the messages if there is room for all of them at once. The batch is empty then.
     * Without a message it does nothing.
     *
     * @throws HalvoException {@code ESMS_FULL} when there is no room, or another thread uses the
     *     channel; the messages stay in the batch
     */
    public void commit() throws HalvoException {
        requireOpen();
        if (count > 0) {
            written(end.atOnce(IPCFunctions.ESMS_FULL, this::writeAll));
        }
    }

    /**
     * Writes the messages, waiting for room for all of them. The batch is empty then.
     *
     * @param timeout the longest wait
     * @throws HalvoException {@code ESMS_TIMEOUT} when there was no room in time; the messages stay
     *     in the batch
     * @throws InterruptedException when the thread is interrupted; likewise
     */
    public void commit(Duration timeout) throws HalvoException, InterruptedException {
        requireOpen();
        if (count > 0) {
            written(end.inTime(timeout, IPCFunctions.ESMS_FULL, this::writeAll));
        }
    }

    private long writeAll(ByteBuffer cell, int millis) {
        return ChannelCalls.writeAll(cell, end.number, staged, count, millis);
    }

    /** Keeps what a damaged channel did not take, so that a further commit sends nothing twice. */
    private void written(long result) throws HalvoException {
        long left = count - end.check("write a batch to", result);
        if (left > 0) {
            int from = 0;
            for (long i = 0; i < result; i++) {
                from += HEADER + Channel.intAt(staged, from);
            }
            System.arraycopy(staged, from, staged, 0, used - from);
            used -= from;
            count = (int) left;
            throw new HalvoException("write a batch to " + end.name, IPCFunctions.ESMS_FAILED,
                    result + " messages were written, " + left + " were not");
        }
        rollback();
    }

    /** Drops the messages. */
    public void rollback() {
        used = 0;
        count = 0;
    }

    /** Drops the messages that were not committed. */
    @Override
    public void close() {
        rollback();
        closed = true;
    }

    private void requireOpen() {
        if (closed) {
            throw new IllegalStateException("the batch for " + end.name + " is closed");
        }
    }
}
