package com.morvesk.halvo.ipc;

import static org.junit.Assert.*;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import org.junit.function.ThrowingRunnable;

/** The segment of a test run: fresh channels, fields of their headers; and what tests expect. */
final class TestSegment {
    // Offsets in a channel header, and what stands there.
    static final int QBSZ = 4, RPOS = 44, WPOS = 48, WTIME = 60, RTIME = 64, FWTIME = 68;
    static final int PIDP = 100, PIDG = 128, PIDPF = 132, PIDGF = 136, WWAIT = 148, RWAIT = 152;
    static final int PCNT = 156, GCNT = 208, FPCNT = 416, FGCNT = 468, TCNT = 520; // counters
    static final int READERS = 213512, WRITERS = 214072, LASTOUT = 214668; // records of clients
    // Bytes of a counter's and of a client's record, and offsets in them.
    static final int RECORD = 52, ECOUNT = 8, INTERVAL = 16, START = 20, RATIO = 24, NAME = 28;
    static final int CLIENT = 56, CLIENT_TIME = 24;
    // What stands for the segment's header in place of a channel, and an offset there.
    static final int SEGMENT = -1, NOW = 8;

    static final int CHANNELS = 110, SLOTS = 4, SLOT_SIZE = 64, LONGEST = SLOT_SIZE - 16;
    static final String KEY = System.getProperty("halvo.test.key");

    private static final Map<Character, Integer> USED = new HashMap<>();

    static {
        IPCFunctions.initialized(); // the library comes first
        System.load(System.getProperty("halvo.test.natives"));
    }

    private TestSegment() {}

    static native long thisThread();
    static native int interrupt(long thread);
    static native String vmString(byte[] bytes);
    static native int takePosts(String keyFile, int channel);
    static native void fillRegistry();
    static native void emptyRegistry();
    private static native ByteBuffer memoryOf(int channel);

    static void attach() {
        if (IPCFunctions.initialized() == 0) {
            assertEquals(0, IPCFunctions.initialize(KEY));
            IPCFunctions.monitorTimeout(); // a clock that runs
        }
    }

    /** A channel that no test has used yet: of type 'M' or 'F', with 4 slots of 64 bytes. */
    static int fresh(char type) {
        attach();
        int next = USED.merge(type, 1, Integer::sum) - 1;
        String name = type + String.format("%02d", next);
        int channel = IPCFunctions.channelByName(name);
        assertTrue("no channel " + name, channel >= 0);
        return channel;
    }

    /** A channel of which this process holds both ends. */
    static int both() {
        return open(open(fresh('M'), false), true);
    }

    static int open(int channel, boolean forWrite) {
        assertEquals(0, IPCFunctions.openChannel("test", channel, forWrite, 1000));
        return channel;
    }

    static byte[] bytes(String text) {
        return text.getBytes(StandardCharsets.ISO_8859_1);
    }

    static int write(int channel, String text) throws InterruptedException {
        return IPCFunctions.write(channel, 1, bytes(text), 0, text.length(), -1);
    }

    /** Writes messages, for which there is room. */
    static void put(int channel, String... texts) throws InterruptedException {
        for (String text : texts) {
            assertEquals(0, write(channel, text));
        }
    }

    static void fill(int channel) throws InterruptedException {
        put(channel, "x", "x", "x", "x");
    }

    /** The next messages, or their codes in brackets. */
    static void takes(int channel, String... texts) {
        for (String text : texts) {
            assertEquals(text, read(channel));
        }
    }

    /** The body of the next message, or the code in brackets. */
    static String read(int channel) {
        byte[] body = new byte[SLOT_SIZE];
        int length = IPCFunctions.read(channel, body, 0, body.length, 0, false);
        return length < 0 ? "[" + length + "]" : text(body, length);
    }

    static String text(byte[] bytes, int length) {
        return text(bytes, 0, length);
    }

    static String text(byte[] bytes, int offset, int length) {
        return new String(bytes, offset, length, StandardCharsets.ISO_8859_1);
    }

    static ByteBuffer wrap(byte[] bytes) {
        return ByteBuffer.wrap(bytes).order(ByteOrder.LITTLE_ENDIAN);
    }

    /** The header of a channel and what follows it, as its processes have it. */
    static ByteBuffer memory(int channel) {
        return memoryOf(channel).order(ByteOrder.LITTLE_ENDIAN);
    }

    static int intAt(int channel, int offset) {
        return memory(channel).getInt(offset);
    }

    static void putIntAt(int channel, int offset, int value) {
        memory(channel).putInt(offset, value);
    }

    static long longAt(int channel, int offset) {
        return memory(channel).getLong(offset);
    }

    static void putLongAt(int channel, int offset, long value) {
        memory(channel).putLong(offset, value);
    }

    /** Waits until a word of a channel's header has a value. */
    static void await(int channel, int offset, int value) throws InterruptedException {
        for (int i = 0; intAt(channel, offset) != value; i++) {
            assertTrue("field " + offset + " never became " + value, i < 10000);
            Thread.sleep(1);
        }
    }

    // ---- What several calls are expected to do alike

    /** Natives that all answer the same. */
    static void all(long expected, long... answers) {
        for (int i = 0; i < answers.length; i++) {
            assertEquals("answer " + (i + 1), expected, answers[i]);
        }
    }

    static void raises(Class<? extends Throwable> type, ThrowingRunnable... calls) {
        for (ThrowingRunnable call : calls) {
            assertThrows(type, call);
        }
    }

    /** The call raises a HalvoException with that code, whose text has that part. */
    static void refused(int code, String part, ThrowingRunnable call) {
        HalvoException refusal = assertThrows(HalvoException.class, call);
        String text = refusal.getMessage();
        assertEquals(text, code, refusal.code());
        assertTrue(text, text.contains(part) && text.contains(refusal.codeName()));
        assertEquals(text, code == IPCFunctions.ESMS_TIMEOUT, refusal.isTimeout());
        assertEquals(HalvoException.nameOf(code), refusal.codeName());
    }

    static void refused(int code, ThrowingRunnable... calls) {
        for (ThrowingRunnable call : calls) {
            refused(code, "", call);
        }
    }
}
