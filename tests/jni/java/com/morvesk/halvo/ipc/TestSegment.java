package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.HashMap;
import java.util.Map;

/** The segment of a test run: fresh channels, and fields of their headers. */
final class TestSegment {
    // Offsets in a channel header.
    static final int QTYPE = 32;
    static final int QBSZ = 4;
    static final int PIDP = 100;
    static final int PIDG = 128;
    static final int WWAIT = 148;
    static final int RWAIT = 152;
    static final int LASTOUT = 214668;
    // Counter records in a channel header, and words of a record.
    static final int PCNT = 156;
    static final int GCNT = 208;
    static final int FPCNT = 416;
    static final int FGCNT = 468;
    static final int TCNT = 520;
    static final int RECORD = 52;
    static final int ECOUNT = 8;
    // The segment header.
    static final int SEGMENT = -1;
    static final int NOW = 8;

    static final int SLOTS = 4;
    static final int SLOT_SIZE = 64;
    static final int LONGEST = SLOT_SIZE - 16;
    static final int CHANNELS = 110;

    private static final Map<Character, Integer> USED = new HashMap<>();

    static {
        assertEquals(0, IPCFunctions.initialize(System.getProperty("halvo.test.key")));
        IPCFunctions.monitorTimeout(); // a clock that runs
    }

    private TestSegment() {}

    /** Attaches; so does every other method here. */
    static void attach() {}

    /** A channel that no test has used yet: of type 'M' or 'F', with 4 slots of 64 bytes. */
    static int fresh(char type) {
        int next = USED.merge(type, 1, Integer::sum) - 1;
        return named(type + String.format("%02d", next));
    }

    static int named(String name) {
        int channel = IPCFunctions.channelByName(name);
        assertTrue("no channel " + name, channel >= 0);
        return channel;
    }

    static int reader() {
        return open(fresh('M'), false);
    }

    static int writer() {
        return open(fresh('M'), true);
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
        byte[] bytes = new byte[text.length()];
        for (int i = 0; i < bytes.length; i++) {
            bytes[i] = (byte) text.charAt(i);
        }
        return bytes;
    }

    static int write(int channel, String text) throws InterruptedException {
        return IPCFunctions.write(channel, 1, bytes(text), 0, text.length(), -1);
    }

    /** The body of the next message, or the code in brackets. */
    static String read(int channel) {
        byte[] body = new byte[SLOT_SIZE];
        int length = IPCFunctions.read(channel, body, 0, body.length, 0, false);
        return length < 0 ? "[" + length + "]" : text(body, length);
    }

    static String text(byte[] bytes, int length) {
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < length; i++) {
            text.append((char) (bytes[i] & 0xff));
        }
        return text.toString();
    }

    static ByteBuffer wrap(byte[] bytes) {
        return ByteBuffer.wrap(bytes).order(ByteOrder.LITTLE_ENDIAN);
    }

    private static ByteBuffer field(int channel, int offset) {
        byte[] bytes = new byte[8];
        TestNatives.peek(channel, offset, bytes);
        return wrap(bytes);
    }

    static int intAt(int channel, int offset) {
        return field(channel, offset).getInt();
    }

    static void putIntAt(int channel, int offset, int value) {
        byte[] bytes = new byte[4];
        wrap(bytes).putInt(value);
        TestNatives.poke(channel, offset, bytes);
    }

    static long longAt(int channel, int offset) {
        return field(channel, offset).getLong();
    }

    static void putLongAt(int channel, int offset, long value) {
        byte[] bytes = new byte[8];
        wrap(bytes).putLong(value);
        TestNatives.poke(channel, offset, bytes);
    }

    /** Waits until a word of a channel's header has a value. */
    static void await(int channel, int offset, int value) throws InterruptedException {
        for (int i = 0; intAt(channel, offset) != value; i++) {
            assertTrue("field " + offset + " never became " + value, i < 10000);
            Thread.sleep(1);
        }
    }
}
