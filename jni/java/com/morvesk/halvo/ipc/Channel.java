package com.morvesk.halvo.ipc;

import java.time.Duration;
import java.util.Arrays;
import java.util.Objects;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;

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
 * <p>Threads may share one: their calls are made one after the other, and waiting for one's turn
 * counts into the timeout. A failed operation raises {@link HalvoException} with the library's
 * code.
 */
public final class Channel implements AutoCloseable {
    static {
        NativeLibrary.load();
    }

    private static boolean attached;

    private final ReentrantLock turn = new ReentrantLock();
    private final String name;
    private final int number;
    private final boolean forWrite;
    private final byte[] slot;
    private boolean open = true;

    /** A message that was read. */
    public static final class Message {
        private final int type;
        private final byte[] body;

        private Message(int type, byte[] body) {
            this.type = type;
            this.body = body;
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
         * The message's bytes.
         *
         * @return the array, which belongs to the caller
         */
        public byte[] body() {
            return body;
        }
    }

    private Channel(String name, int number, boolean forWrite) throws HalvoException {
        this.name = name;
        this.number = number;
        this.forWrite = forWrite;
        this.slot = new byte[HalvoException.check("size of " + name,
                IPCFunctions.sizeOfBlock(number))];
    }

    /**
     * Starts the library in this process, attaches it to a segment and starts the
     * {@link TimeoutMonitor}. Further calls change nothing.
     *
     * @param keyFile path of the key file
     * @throws HalvoException when there is no such segment
     */
    public static synchronized void attach(String keyFile) throws HalvoException {
        Objects.requireNonNull(keyFile, "keyFile");
        if (!attached) {
            int result = IPCFunctions.initialize(keyFile);
            if (result != IPCFunctions.ESMS_ALREADY) {
                HalvoException.check("attach to " + keyFile, result);
            }
            attached = true;
        }
        TimeoutMonitor.start();
    }

    /**
     * Opens the reader's end of a channel, and puts it right when its last holder was killed.
     *
     * @param client  the name to show for this process; 23 bytes are kept
     * @param channel the channel's name
     * @param timeout the longest wait while another process holds the end
     * @return the open end
     * @throws HalvoException {@code ESMS_INVAL} for an unknown channel, {@code ESMS_ACCESS} when
     *     the end is not given in time
     */
    public static Channel openReader(String client, String channel, Duration timeout)
            throws HalvoException {
        return open(client, channel, false, timeout);
    }

    /**
     * Opens the writer's end of a channel, and puts it right when its last holder was killed.
     *
     * @param client  the name to show for this process; 23 bytes are kept
     * @param channel the channel's name
     * @param timeout the longest wait while another process holds the end
     * @return the open end
     * @throws HalvoException as {@link #openReader}
     */
    public static Channel openWriter(String client, String channel, Duration timeout)
            throws HalvoException {
        return open(client, channel, true, timeout);
    }

    private static Channel open(String client, String name, boolean forWrite, Duration timeout)
            throws HalvoException {
        Objects.requireNonNull(client, "client");
        Objects.requireNonNull(name, "channel");
        int number = IPCFunctions.channelByName(name);
        if (number < 0) {
            throw new HalvoException("no channel " + name + ", or not attached",
                    IPCFunctions.ESMS_INVAL);
        }
        Channel channel = new Channel(name, number, forWrite);
        HalvoException.check("open " + name,
                IPCFunctions.openChannel(client, number, forWrite, millis(timeout)));
        HalvoException.check("recover " + name, recover(number, forWrite));
        return channel;
    }

    /** Puts the end right when its last holder died in the middle of an operation. */
    private static native int recover(int channel, boolean forWrite);

    /**
     * The channel's number, for the natives.
     *
     * @return the number
     */
    public int number() {
        return number;
    }

    /**
     * The longest message that the channel takes.
     *
     * @return bytes
     */
    public int longestMessage() {
        return IPCFunctions.sizeOfData(number);
    }

    /**
     * Takes the next message, waiting for one.
     *
     * @param timeout the longest wait
     * @return the message
     * @throws HalvoException {@code ESMS_TIMEOUT} when none came in time, {@code ESMS_JAVAINTR}
     *     when a signal ended the wait
     * @throws InterruptedException when the thread is interrupted while it waits for its turn
     */
    public Message read(Duration timeout) throws HalvoException, InterruptedException {
        int left = takeTurn("read from ", timeout);
        try {
            int length = HalvoException.check("read from " + name,
                    IPCFunctions.read(number, slot, 0, slot.length, left, true));
            int end = Math.min(14 + length, slot.length);
            return new Message((slot[13] & 0xff) << 8 | slot[12] & 0xff,
                    Arrays.copyOfRange(slot, 14, end));
        } finally {
            turn.unlock();
        }
    }

    /**
     * Puts one message into the channel, waiting for room.
     *
     * @param type    the message type, 0 to 65535
     * @param body    the message's bytes, 1 to {@link #longestMessage}
     * @param timeout the longest wait
     * @throws HalvoException {@code ESMS_TIMEOUT} when there was no room in time, {@code
     *     ESMS_EXEED} for too long a message
     * @throws InterruptedException when a signal ended the wait, or the thread is interrupted while
     *     it waits for its turn
     */
    public void write(int type, byte[] body, Duration timeout)
            throws HalvoException, InterruptedException {
        int left = takeTurn("write to ", timeout);
        try {
            HalvoException.check("write to " + name,
                    IPCFunctions.write(number, type, body, 0, body.length, left));
        } finally {
            turn.unlock();
        }
    }

    /**
     * Puts one message into the channel if there is room at once.
     *
     * @param type the message type, 0 to 65535
     * @param body the message's bytes, 1 to {@link #longestMessage}
     * @return false when there is no room, or another thread uses the channel
     * @throws HalvoException as {@link #write}, but for the timeout
     */
    public boolean tryWrite(int type, byte[] body) throws HalvoException {
        if (!turn.tryLock()) {
            return false;
        }
        try {
            requireOpen();
            int result = IPCFunctions.write(number, type, body, 0, body.length, -1);
            return result != IPCFunctions.ESMS_FULL
                    && HalvoException.check("write to " + name, result) >= 0;
        } catch (InterruptedException e) { // not without a wait
            Thread.currentThread().interrupt();
            return false;
        } finally {
            turn.unlock();
        }
    }

    /** Gives the end back to other processes, after a call that another thread is in has ended. */
    @Override
    public void close() throws HalvoException {
        turn.lock();
        try {
            if (open) {
                open = false;
                HalvoException.check("close " + name, IPCFunctions.closeChannel(number, forWrite));
            }
        } finally {
            turn.unlock();
        }
    }

    /** Takes the lock. Returns the milliseconds that are left. */
    private int takeTurn(String operation, Duration timeout)
            throws HalvoException, InterruptedException {
        long until = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis(timeout));
        if (!turn.tryLock() && !turn.tryLock(millis(timeout), TimeUnit.MILLISECONDS)) {
            throw new HalvoException(operation + name, IPCFunctions.ESMS_TIMEOUT);
        }
        try {
            requireOpen();
        } catch (IllegalStateException e) {
            turn.unlock();
            throw e;
        }
        long left = TimeUnit.NANOSECONDS.toMillis(until - System.nanoTime() + 999_999);
        return (int) Math.max(0, left);
    }

    private void requireOpen() {
        if (!open) {
            throw new IllegalStateException("channel " + name + " is closed");
        }
    }

    private static int millis(Duration timeout) {
        if (timeout.isNegative()) {
            return 0;
        }
        long seconds = timeout.getSeconds();
        return seconds >= Integer.MAX_VALUE / 1000 ? Integer.MAX_VALUE : (int) timeout.toMillis();
    }
}
