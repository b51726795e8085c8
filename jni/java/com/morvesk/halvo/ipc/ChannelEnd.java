package com.morvesk.halvo.ipc;

import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.Condition;
import java.util.concurrent.locks.ReentrantLock;

/** What the operations of an open end share: turns of threads, waits, states and failures. */
final class ChannelEnd {
    private static final int HEADER = 16; // bytes of a slot that no message can have
    private static final int PAUSE_MILLIS = 5;
    final String name;
    final int number;
    final boolean forWrite;
    final int longest; // bytes of a message
    private final ReentrantLock turn = new ReentrantLock();
    private final Condition released = turn.newCondition();
    private final WakeableCall waits = new WakeableCall();
    private volatile boolean closing;
    private boolean closed;
    private Marked marked; // holds the reading end while it is open

    ChannelEnd(String name, int number, boolean forWrite) {
        this.name = name;
        this.number = number;
        this.forWrite = forWrite;
        longest = IPCFunctions.sizeOfBlock(number) - HEADER;
    }

    int slots() {
        return IPCFunctions.countOfBlocks(number) + 2;
    }

    // ---- Opening

    void open(String client, Duration timeout) throws HalvoException, InterruptedException {
        String operation = forWrite ? "open for writing" : "open for reading";
        long until = deadline(timeout);
        int result;
        while (true) {
            waits.prepare();
            if (Thread.interrupted()) {
                throw new InterruptedException(operation + " " + name);
            }
            result = (int) waits.run((cell, millis) ->
                    ChannelCalls.open(cell, client, number, forWrite, millis), millisUntil(until));
            if (result != IPCFunctions.ESMS_ACCESS && !isInterruption(result)) {
                break;
            }
            if (System.nanoTime() - until >= 0 && !Thread.currentThread().isInterrupted()) {
                break;
            }
            Thread.sleep(PAUSE_MILLIS); // a failure that comes at once must not keep the thread busy
        }
        check(operation, result);
        int recovered = ChannelCalls.recover(number, forWrite);
        if (recovered < 0) {
            IPCFunctions.closeChannel(number, forWrite);
            throw failure("recover", recovered);
        }
    }

    // ---- Operations

    /** Waits for the turn, tries, waits. A result that is not {@code notYet}, or ESMS_TIMEOUT. */
    long inTime(Duration timeout, int notYet, WakeableCall.Call call)
            throws HalvoException, InterruptedException {
        requireOpen();
        if (Thread.interrupted()) {
            throw new InterruptedException(name);
        }
        long until = deadline(timeout);
        if (!turn.tryLock()
                && !turn.tryLock(until - System.nanoTime(), TimeUnit.NANOSECONDS)) {
            return IPCFunctions.ESMS_TIMEOUT;
        }
        try {
            if (marked != null && !awaitRelease(until)) {
                return IPCFunctions.ESMS_TIMEOUT;
            }
            if (closing) {
                throw new ChannelClosedException(name);
            }
            long result = call.run(null, 0);
            return result == notYet ? await(until, call) : result;
        } finally {
            turn.unlock();
        }
    }

    private long await(long until, WakeableCall.Call call)
            throws HalvoException, InterruptedException {
        while (true) {
            waits.prepare();
            if (closing) {
                throw new ChannelClosedException(name);
            }
            if (Thread.interrupted()) {
                throw new InterruptedException(name);
            }
            if (System.nanoTime() - until >= 0) {
                return IPCFunctions.ESMS_TIMEOUT;
            }
            long result = waits.run(call, millisUntil(until));
            if (result != IPCFunctions.ESMS_TIMEOUT && !isInterruption(result)) {
                return result;
            }
        }
    }

    /** One try, if no other thread uses the end; {@code notYet} else. */
    long atOnce(int notYet, WakeableCall.Call call) {
        if (!turn.tryLock()) {
            return notYet;
        }
        try {
            requireOpen();
            if (marked == null) {
                return call.run(null, 0);
            }
            marked.refuseMine();
            return notYet;
        } finally {
            turn.unlock();
        }
    }

    private boolean awaitRelease(long until) throws InterruptedException {
        while (marked != null) {
            marked.refuseMine();
            long left = until - System.nanoTime();
            if (left <= 0) {
                return false;
            }
            released.awaitNanos(left);
        }
        return true;
    }

    // ---- Marked messages

    /** To be called within a call of {@link #inTime}. */
    void hold(Marked messages) {
        marked = messages;
    }

    /** Ends or works on marked messages, which must still hold the end. */
    int onMarked(Marked messages, boolean release, WakeableCall.Call call) {
        turn.lock();
        try {
            if (marked != messages) {
                throw new IllegalStateException("the marked messages of " + name + " were given back");
            }
            int result = (int) call.run(null, 0);
            if (release) {
                marked = null;
                released.signalAll();
            }
            return result;
        } finally {
            turn.unlock();
        }
    }

    // ---- Closing

    void close() throws HalvoException {
        closing = true;
        waits.wake();
        turn.lock();
        try {
            if (!closed) {
                closed = true;
                if (marked != null) {
                    IPCFunctions.readRollback(number);
                    marked = null;
                    released.signalAll();
                }
                check("close", IPCFunctions.closeChannel(number, forWrite));
            }
        } finally {
            turn.unlock();
        }
    }

    private void requireOpen() {
        if (closing) {
            throw new IllegalStateException("channel " + name + " is closed");
        }
    }

    void require(boolean writing) {
        if (forWrite != writing) {
            throw new IllegalStateException("channel " + name + " is open for "
                    + (forWrite ? "writing" : "reading") + " only");
        }
    }

    // ---- Failures

    long check(String operation, long result) throws HalvoException {
        if (result < 0) {
            throw failure(operation, (int) result);
        }
        return result;
    }

    HalvoException failure(String operation, int code) {
        String tried = operation + " " + name;
        return code == IPCFunctions.ESMS_ACCESS
                ? new HalvoException(tried, code, holder()) : new HalvoException(tried, code);
    }

    HalvoException tooLong(String operation, long length, int most) {
        return new HalvoException(operation + " " + name, IPCFunctions.ESMS_EXEED,
                "a message of " + length + " bytes, at most " + most + " fit");
    }

    private String holder() {
        byte[] field = new byte[24];
        int process = ChannelCalls.holder(number, forWrite, field);
        int length = 0;
        while (length < field.length && field[length] != 0) {
            length++;
        }
        Charset names = Charset.isSupported("EUC-KR")
                ? Charset.forName("EUC-KR") : StandardCharsets.ISO_8859_1;
        return "the end is held by process " + process + " ("
                + new String(field, 0, length, names) + ")";
    }

    // ---- Time

    private static boolean isInterruption(long result) {
        return result == IPCFunctions.ESMS_JAVAINTR;
    }

    static long deadline(Duration timeout) {
        return System.nanoTime() + nanos(timeout);
    }

    private static long nanos(Duration timeout) {
        if (timeout.isNegative()) {
            return 0;
        }
        long most = Long.MAX_VALUE / 2;
        return timeout.getSeconds() > most / 1_000_000_000L ? most : timeout.toNanos();
    }

    private static int millisUntil(long until) {
        long left = TimeUnit.NANOSECONDS.toMillis(until - System.nanoTime() + 999_999);
        return (int) Math.max(0, Math.min(Integer.MAX_VALUE, left));
    }
}
