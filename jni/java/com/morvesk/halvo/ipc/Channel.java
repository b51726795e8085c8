package com.morvesk.halvo.ipc;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.Arrays;
import java.util.Objects;

/**
 * An open end of a channel.
 *
 * <pre>{@code
 * Channel.attach("/run/gateway.key");
 * try (Channel out = Channel.openWriter("billing", "MT01", Duration.ofSeconds(5))) {
 *     out.write(1, bytes, Duration.ofSeconds(1));
 * }
 * }</pre>
 *
 * <p><b>Deaths.</b> A message that {@link #write} put into the channel is there, whatever becomes
 * of this process. One that {@link #read} took is gone from the channel: a process that must not
 * lose messages by its own death takes them by {@link #mark} and commits when it has dealt with
 * them. {@link Batch} and {@link Marked} tell what a death leaves of their transactions. Opening an
 * end puts right what the death of its last holder left behind.
 *
 * <p><b>Threads</b> may share a channel: their calls are made one after the other, and waiting for
 * one's turn counts into the timeout. A wait ends with {@link InterruptedException} when its thread
 * is interrupted, and with {@link ChannelClosedException} when another thread closes the channel;
 * nothing was read or written then. A call that has done its work before it notices the interrupt
 * returns as usual, and the thread stays interrupted. Calls that cannot wait do not look for
 * interrupts.
 *
 * <p><b>Virtual threads</b> may call every method. A wait in the library would hold their carrier,
 * so a platform thread waits for them: that takes two more changes of threads than in a platform
 * thread, but for calls that need not wait.
 *
 * <p>A failed operation raises {@link HalvoException} with the library's code. The wrong use of an
 * object (closed, or open for the other direction) is an {@link IllegalStateException}.
 */
public final class Channel implements AutoCloseable {
    private static final int LEN = 8; // of a slot's fields
    private static final int TYPE = 12;
    private static final int BODY = 14;
    private static final int MOST_TYPE = 0xffff;
    private static final int HANDED_OVER_AT_ONCE = 100;

    private final ChannelEnd end;
    private final ChannelReads reads;

    /** A message that was read. */
    public static final class Message {
        private final int type;
        private final byte[] body;

        Message(int type, byte[] body) {
            this.type = type;
            this.body = body;
        }

        static Message ofSlot(byte[] slots, int at, int slotSize) {
            int length = intAt(slots, at + LEN);
            int fits = slotSize - BODY;
            int end = at + BODY + (length < 0 || length > fits ? fits : length);
            return new Message(slots[at + TYPE] & 0xff | (slots[at + TYPE + 1] & 0xff) << 8,
                    Arrays.copyOfRange(slots, at + BODY, end));
        }

        /**
         * The message type.
         *
         * @return 0 to 65535
         */
        public int type() {
            return type;
        }

        /**
         * The message's bytes. The library does not look at them; texts have the charset that the
         * programs at both ends agree on.
         *
         * @return the array, which belongs to the caller
         */
        public byte[] body() {
            return body;
        }
    }

    /**
     * What {@link #forEach} does with a message.
     *
     * @param <X> what it may throw
     */
    public interface Handler<X extends Exception> {
        /**
         * Deals with a message.
         *
         * @param message the message
         * @throws X when it cannot; the message is read again
         */
        void handle(Message message) throws X;
    }

    private Channel(ChannelEnd end) {
        this.end = end;
        reads = new ChannelReads(end);
    }

    // ---- Attaching

    /**
     * Starts the library in this process, attaches it to a segment and starts the
     * {@link TimeoutMonitor}. A process attaches once for its lifetime: for the segment that it has
     * already this does nothing more, and another one is refused.
     *
     * @param keyFile path of the key file
     * @throws HalvoException {@code ESMS_SHMOP} when there is no such segment or it is not
     *     complete, and a later call may succeed; {@code ESMS_ALREADY} when the process has another
     *     segment
     */
    public static void attach(String keyFile) throws HalvoException {
        Attachment.attach(keyFile);
    }

    /**
     * Attaches as {@link #attach(String)}, waiting for the segment to be made.
     *
     * @param keyFile path of the key file
     * @param timeout the longest wait
     * @throws HalvoException {@code ESMS_TIMEOUT} when there is no such segment in time; {@code
     *     ESMS_ALREADY} when the process has another segment
     * @throws InterruptedException when the thread is interrupted
     */
    public static void attach(String keyFile, Duration timeout)
            throws HalvoException, InterruptedException {
        Attachment.attach(keyFile, timeout);
    }

    // ---- Opening and closing

    /**
     * Opens the reader's end of a channel, and puts it right when its last holder was killed.
     *
     * @param client  the name to show for this process: its first 23 bytes, in the VM's UTF-8
     * @param channel the channel's name
     * @param timeout the longest wait while another process holds the end
     * @return the open end
     * @throws HalvoException {@code ESMS_INVAL} for an unknown channel, {@code ESMS_ACCESS} when
     *     the end is not given in time; the text names its holder
     * @throws InterruptedException when the thread is interrupted
     */
    public static Channel openReader(String client, String channel, Duration timeout)
            throws HalvoException, InterruptedException {
        return open(client, channel, false, timeout);
    }

    /**
     * Opens the writer's end of a channel, and puts it right when its last holder was killed.
     *
     * @param client  the name to show for this process: its first 23 bytes, in the VM's UTF-8
     * @param channel the channel's name
     * @param timeout the longest wait while another process holds the end
     * @return the open end
     * @throws HalvoException as {@link #openReader}
     * @throws InterruptedException when the thread is interrupted
     */
    public static Channel openWriter(String client, String channel, Duration timeout)
            throws HalvoException, InterruptedException {
        return open(client, channel, true, timeout);
    }

    private static Channel open(String client, String name, boolean forWrite, Duration timeout)
            throws HalvoException, InterruptedException {
        Objects.requireNonNull(client, "client");
        Objects.requireNonNull(name, "channel");
        int number = IPCFunctions.channelByName(name);
        if (number < 0) {
            throw new HalvoException("open " + name, IPCFunctions.ESMS_INVAL,
                    "no such channel, or not attached");
        }
        ChannelEnd end = new ChannelEnd(name, number, forWrite);
        end.check("look at", IPCFunctions.sizeOfBlock(number));
        end.open(client, timeout);
        return new Channel(end);
    }

    /**
     * Gives the end back to other processes. Marked messages that were not committed are read
     * again; waits of other threads end.
     *
     * @throws HalvoException when the end was not this process's to give
     */
    @Override
    public void close() throws HalvoException {
        end.close();
    }

    /**
     * The channel's name.
     *
     * @return the name by which it was opened
     */
    public String name() {
        return end.name;
    }

    /**
     * The channel's number, for the natives.
     *
     * @return the number
     */
    public int number() {
        return end.number;
    }

    /**
     * The longest message that the channel takes.
     *
     * @return bytes
     */
    public int longestMessage() {
        return end.longest;
    }

    // ---- Reading

    /**
     * Takes the next message, waiting for one.
     *
     * @param timeout the longest wait; 0 or less does not wait
     * @return the message
     * @throws HalvoException {@code ESMS_TIMEOUT} when none came in time
     * @throws InterruptedException when the thread is interrupted
     */
    public Message read(Duration timeout) throws HalvoException, InterruptedException {
        Message message = poll(timeout);
        if (message == null) {
            throw end.failure("read from", IPCFunctions.ESMS_TIMEOUT);
        }
        return message;
    }

    /**
     * Takes the next message, waiting for one.
     *
     * @param timeout the longest wait; 0 or less does not wait
     * @return the message; null when none came in time
     * @throws HalvoException when the channel cannot be read
     * @throws InterruptedException when the thread is interrupted
     */
    public Message poll(Duration timeout) throws HalvoException, InterruptedException {
        return reading().poll(timeout);
    }

    /**
     * Takes the next message if there is one at once.
     *
     * @return the message; null when there is none, or another thread uses the channel
     * @throws HalvoException when the channel cannot be read
     */
    public Message tryRead() throws HalvoException {
        return reading().tryRead();
    }

    /**
     * Takes the next message into an array, waiting for one. Nothing is allocated.
     *
     * @param array   receives the message
     * @param offset  where in the array it begins
     * @param length  the room for it
     * @param timeout the longest wait; 0 or less does not wait
     * @return the message's length; {@link #lastType} tells its type
     * @throws HalvoException {@code ESMS_TIMEOUT} when none came in time; {@code ESMS_EXEED} when
     *     the message is longer than the room, and stays
     * @throws InterruptedException when the thread is interrupted
     */
    public int read(byte[] array, int offset, int length, Duration timeout)
            throws HalvoException, InterruptedException {
        checkRange(array, offset, length);
        return reading().into(array, offset, length, timeout);
    }

    /**
     * Takes the next message into a buffer, waiting for one. Nothing is allocated. The message
     * begins at the buffer's position, which then stands behind it.
     *
     * @param buffer  receives the message
     * @param timeout the longest wait; 0 or less does not wait
     * @return the message's length; {@link #lastType} tells its type
     * @throws HalvoException as {@link #read(byte[], int, int, Duration)}
     * @throws InterruptedException when the thread is interrupted
     */
    public int read(ByteBuffer buffer, Duration timeout)
            throws HalvoException, InterruptedException {
        if (buffer.isReadOnly()) {
            throw new IllegalArgumentException("the buffer cannot be written to");
        }
        return reading().into(buffer, timeout);
    }

    /**
     * The type of the message that was last read into an array or a buffer.
     *
     * @return 0 to 65535; -1 before the first
     */
    public int lastType() {
        return reads.lastType;
    }

    /**
     * Marks messages that are there, waiting for the first.
     *
     * @param max     the most to mark, 1 or more
     * @param timeout the longest wait; 0 or less does not wait
     * @return the messages, none when none came in time
     * @throws HalvoException when the channel cannot be read
     * @throws InterruptedException when the thread is interrupted
     */
    public Marked mark(int max, Duration timeout) throws HalvoException, InterruptedException {
        if (max < 1) {
            throw new IllegalArgumentException("mark " + max + " messages");
        }
        return reading().mark(max, timeout);
    }

    /**
     * Hands each message to a handler, in order, until none has come for a while. Messages are
     * marked, handled, then committed, up to a hundred at a time. When the handler throws, those
     * that it had handled are committed, the others are read again, and the exception goes on. A
     * message may be handled twice when this process dies: one that was handled and not yet
     * committed.
     *
     * @param handler what to do with a message; it must not read from this channel
     * @param timeout how long to wait for a message
     * @param <X>     what the handler may throw
     * @return the number of messages handled
     * @throws HalvoException when the channel cannot be read
     * @throws InterruptedException when the thread is interrupted, between two sets of messages
     * @throws X what the handler throws
     */
    public <X extends Exception> long forEach(Handler<? extends X> handler, Duration timeout)
            throws HalvoException, InterruptedException, X {
        for (long handled = 0;;) {
            try (Marked messages = mark(HANDED_OVER_AT_ONCE, timeout)) {
                if (messages.size() == 0) {
                    return handled;
                }
                handled += messages.handle(handler);
            }
        }
    }

    // ---- Writing

    /**
     * Puts one message into the channel, waiting for room.
     *
     * @param type    the message type, 0 to 65535
     * @param body    the message's bytes, 1 to {@link #longestMessage}
     * @param timeout the longest wait; 0 or less does not wait
     * @throws HalvoException {@code ESMS_TIMEOUT} when there was no room in time, {@code
     *     ESMS_EXEED} for too long a message, {@code ESMS_INVAL} for an empty one
     * @throws InterruptedException when the thread is interrupted
     */
    public void write(int type, byte[] body, Duration timeout)
            throws HalvoException, InterruptedException {
        write(type, body, 0, body.length, timeout);
    }

    /**
     * Puts one message that is part of an array into the channel, waiting for room.
     *
     * @param type    the message type, 0 to 65535
     * @param data    holds the message
     * @param offset  where in the array it begins
     * @param length  its length in bytes, 1 to {@link #longestMessage}
     * @param timeout the longest wait; 0 or less does not wait
     * @throws HalvoException as {@link #write(int, byte[], Duration)}
     * @throws InterruptedException when the thread is interrupted
     */
    public void write(int type, byte[] data, int offset, int length, Duration timeout)
            throws HalvoException, InterruptedException {
        checkMessage(writing(), type, data, offset, length);
        end.check("write to", end.inTime(timeout, IPCFunctions.ESMS_FULL, (cell, millis) ->
                ChannelCalls.write(cell, end.number, type, data, offset, length, millis)));
    }

    /**
     * Puts one message into the channel if there is room at once.
     *
     * @param type the message type, 0 to 65535
     * @param body the message's bytes, 1 to {@link #longestMessage}
     * @return false when there is no room, or another thread uses the channel
     * @throws HalvoException as {@link #write(int, byte[], Duration)}, but for the timeout
     */
    public boolean tryWrite(int type, byte[] body) throws HalvoException {
        checkMessage(writing(), type, body, 0, body.length);
        long result = end.atOnce(IPCFunctions.ESMS_FULL, (cell, millis) ->
                ChannelCalls.write(cell, end.number, type, body, 0, body.length, millis));
        return result != IPCFunctions.ESMS_FULL && end.check("write to", result) >= 0;
    }

    /**
     * Begins messages that are written together.
     *
     * @return a batch without messages
     */
    public Batch batch() {
        return new Batch(writing());
    }

    // ---- Checks

    /** Four bytes as the segment has them. */
    static int intAt(byte[] bytes, int at) {
        return bytes[at] & 0xff | (bytes[at + 1] & 0xff) << 8 | (bytes[at + 2] & 0xff) << 16
                | bytes[at + 3] << 24;
    }

    private ChannelReads reading() {
        end.require(false);
        return reads;
    }

    private ChannelEnd writing() {
        end.require(true);
        return end;
    }

    private static void checkRange(byte[] data, int offset, int length) {
        if (offset < 0 || length < 0 || length > data.length - offset) {
            throw new IndexOutOfBoundsException(
                    length + " bytes from " + offset + " on in an array of " + data.length);
        }
    }

    /** Refuses what the library would, or would send as something else. */
    static void checkMessage(ChannelEnd end, int type, byte[] data, int offset, int length)
            throws HalvoException {
        checkRange(data, offset, length);
        if (type < 0 || type > MOST_TYPE) {
            throw new IllegalArgumentException("message type " + type + ", not 0 to " + MOST_TYPE);
        }
        if (length > end.longest) {
            throw end.tooLong("write to", length, end.longest);
        }
        if (length == 0) {
            throw new HalvoException("write to " + end.name, IPCFunctions.ESMS_INVAL,
                    "an empty message");
        }
    }
}
