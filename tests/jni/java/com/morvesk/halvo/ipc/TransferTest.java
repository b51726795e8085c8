package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.util.Arrays;
import org.junit.Test;

/** One message in, one out: bounds, truncation, raw slots, buffers, views. */
public class TransferTest {
    @Test
    public void messagesArriveInOrderAndWholeUpToTheLongest() throws Exception {
        int channel = both();
        byte[] longest = new byte[LONGEST];
        Arrays.fill(longest, (byte) 0xa5);
        assertEquals(0, write(channel, "a"));
        assertEquals(0, IPCFunctions.write(channel, 2, longest, 0, LONGEST, -1));
        assertEquals("a", read(channel));
        byte[] got = new byte[LONGEST];
        assertEquals(LONGEST, read(channel, got, 0, LONGEST, 0, false));
        assertArrayEquals(longest, got);
    }

    @Test
    public void aRangeOutsideTheArrayIsRefusedBeforeTheChannelIsTouched() throws Exception {
        int channel = both();
        write(channel, "message");
        int[][] bad = {{5, 4}, {0, 9}, {-1, 4}, {9, 0}, {10, -1}, {Integer.MAX_VALUE, 1},
            {1, Integer.MAX_VALUE}};
        byte[] buf = new byte[8];
        for (int[] range : bad) {
            assertEquals(ESMS_INVAL, read(channel, buf, range[0], range[1], 0, false));
            assertEquals(ESMS_INVAL, readBuf(channel, buf, range[0], range[1], 0, false, 0));
            assertEquals(ESMS_INVAL, view(channel, buf, range[0], range[1], 0));
            assertEquals(ESMS_INVAL, readMarked(channel, 0, buf, range[0], range[1], false));
            // The same for a channel that this process does not hold: the range comes first.
            assertEquals(ESMS_INVAL, read(fresh('F'), buf, range[0], range[1], 0, false));
        }
        assertEquals("message", read(channel));
    }

    @Test
    public void aShortRangeGetsTheBeginningAndTheFullLengthIsReturned() throws Exception {
        int channel = both();
        write(channel, "0123456789");
        byte[] buf = bytes("..........");
        assertEquals(10, read(channel, buf, 2, 4, 0, false));
        assertEquals("..0123....", text(buf, 10));
    }

    @Test
    public void rawGivesTheSlotFromItsFirstByte() throws Exception {
        int channel = both();
        IPCFunctions.write(channel, 0x1234, bytes("body"), 0, 4, -1);
        byte[] slot = new byte[100];
        assertEquals(4, read(channel, slot, 10, 90, 0, true));
        assertEquals(1, wrap(slot).getInt(10)); // readable
        assertEquals(4, wrap(slot).getInt(18)); // length
        assertEquals(0x1234, wrap(slot).getShort(22));
        assertEquals("body", text(Arrays.copyOfRange(slot, 24, 28), 4));

        Arrays.fill(slot, (byte) 0xff);
        write(channel, "body");
        assertEquals(4, read(channel, slot, 0, 6, 0, true));
        assertEquals(-1, slot[6]);
        write(channel, "body");
        read(channel, slot, 0, 100, 0, true);
        assertEquals("no more than the slot is copied", -1, slot[SLOT_SIZE]);
    }

    @Test
    public void aLengthOfZeroConsumesTheMessageAllTheSame() throws Exception {
        int channel = both();
        write(channel, "lost");
        write(channel, "next");
        assertEquals(ESMS_INVAL, read(channel, new byte[8], 0, 0, 0, false));
        assertEquals("next", read(channel));
    }

    @Test
    public void aNegativeLengthLimitsNothing() throws Exception {
        int channel = both();
        write(channel, "0123456789");
        byte[] buf = new byte[10];
        assertEquals(10, read(channel, buf, 0, -1, 0, false));
        assertEquals("0123456789", text(buf, 10));
        write(channel, "0123456789");
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> read(channel, new byte[9], 0, -1, 0, false));
        assertEquals(0, getCount(channel));
    }

    @Test
    public void aDamagedLengthCopiesNoMoreThanTheSlotHolds() throws Exception {
        int channel = both();
        write(channel, "x");
        byte[] header = new byte[64];
        TestNatives.peek(channel, 0, header);
        putIntAt(channel, wrap(header).getInt(44) + 8, 1000000); // len of the slot at rpos
        byte[] buf = new byte[200];
        Arrays.fill(buf, (byte) 0xff);
        assertEquals(SLOT_SIZE - 14, read(channel, buf, 0, 200, 0, false));
        assertEquals(-1, buf[SLOT_SIZE - 14]);
    }

    @Test
    public void aBadRangeToWriteRaisesAndWritesZeros() throws Exception {
        int channel = both();
        byte[] data = bytes("data");
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> IPCFunctions.write(channel, 1, data, 2, 3, -1));
        assertEquals("\0\0\0", read(channel));
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> IPCFunctions.write(channel, 1, data, -1, 2, -1));
        assertEquals("\0\0", read(channel));
    }

    @Test
    public void aFullChannelAnswersAtOnceWithoutATimeout() throws Exception {
        int channel = both();
        for (int i = 0; i < SLOTS; i++) {
            assertEquals(0, write(channel, "message " + i));
        }
        assertEquals(ESMS_FULL, write(channel, "more"));
        assertEquals(ESMS_FULL, writeMark(channel, 1, bytes("more"), 0, 4, -1));
        assertEquals(ESMS_FULL, writeBuf(channel, 1, bytes("more"), 0, 4, 0, -1));
        assertEquals(0, intAt(channel, WWAIT));
        assertEquals("message 0", read(channel));
    }

    @Test
    public void writeWait4NAnswersTheWritableCount() throws Exception {
        int channel = both();
        assertEquals(ESMS_INVAL, writeWait4N(channel, 0, -1));
        assertEquals(ESMS_INVAL, writeWait4N(channel, SLOTS + 1, -1));
        assertEquals(SLOTS, writeWait4N(channel, SLOTS, 0));
        write(channel, "x");
        assertEquals("does not wait", SLOTS - 1, writeWait4N(channel, SLOTS, -1));
        writeMark(channel, 1, bytes("x"), 0, 1, -1);
        assertEquals(ESMS_PENDING, writeWait4N(channel, 1, 0));
    }

    @Test
    public void aReadBufferGivesItsMessageUntilItIsCleared() throws Exception {
        int channel = both();
        byte[] buf = new byte[8];
        write(channel, "one");
        write(channel, "two");
        for (int i = 0; i < 2; i++) {
            assertEquals(3, readBuf(channel, buf, 0, 8, 0, false, 4));
            assertEquals("one", text(buf, 3));
        }
        assertEquals(1, statBuf(channel, false, 4));
        assertEquals(0, readBufClear(channel, 4));
        assertEquals(ESMS_INVAL, readBufClear(channel, 4));
        assertEquals(ESMS_INVAL, readBuf(channel, buf, 0, 8, 0, false, 5));
        assertEquals("two", read(channel));
    }

    @Test
    public void aWriteBufferParksItsMessage() throws Exception {
        int channel = both();
        assertEquals(0, writeBuf(channel, 7, bytes("parked"), 0, 6, 2, -1));
        assertEquals(ESMS_PENDING, writeBuf(channel, 7, bytes("parked"), 0, 6, 2, -1));
        assertEquals(ESMS_INVAL, writeBuf(channel, 7, bytes("parked"), 0, 6, 5, -1));
        assertEquals(1, statBuf(channel, true, 2));
        assertEquals(0, writeBufCommit(channel, 2));
        assertEquals(ESMS_INVAL, writeBufCommit(channel, 2));
        assertEquals(ESMS_NOTARGET, writeBufRollback(channel, 2));
        assertEquals("parked", read(channel));
        assertEquals(0, writeBuf(channel, 7, bytes("gone"), 0, 4, 0, -1));
        assertEquals(0, writeBufRollback(channel, 0));
        assertEquals(0, getCount(channel));
    }

    @Test
    public void statBufAcceptsOneIndexTooMany() {
        int channel = fresh('M');
        assertEquals(0, statBuf(channel, false, 0));
        assertEquals("the read buffers end where the write buffers begin", 0,
                statBuf(channel, false, 5));
        assertEquals(ESMS_INVAL, statBuf(channel, true, 6));
        assertEquals(ESMS_INVAL, statBuf(channel, true, -1));
    }

    @Test
    public void viewCopiesTheSlotOfASideAndConsumesNothing() throws Exception {
        int channel = writer();
        write(channel, "seen");
        byte[] slot = new byte[SLOT_SIZE];
        assertEquals(ESMS_ACCESS, view(channel, slot, 0, SLOT_SIZE, 0));
        open(channel, false);
        assertEquals(0, view(channel, slot, 0, SLOT_SIZE, 0));
        assertEquals(1, wrap(slot).getInt(0));
        assertEquals("seen", text(Arrays.copyOfRange(slot, 14, 18), 4));
        assertEquals(0, view(channel, slot, 0, 4, 1));
        assertEquals("the writer's slot is free", 0, wrap(slot).getInt(0));
        assertEquals(0, view(channel, slot, 0, 0, 0));
        putIntAt(channel, PIDP, 1);
        assertEquals(ESMS_ACCESS, view(channel, slot, 0, 4, 1));
        assertEquals("another side is the writer's, unchecked", 0, view(channel, slot, 0, 4, 7));
        assertEquals(0, wrap(slot).getInt(0));
        assertEquals("seen", read(channel));
    }

    @Test
    public void statTellsStatesAndTimes() throws Exception {
        int channel = both();
        assertEquals(0, stat(channel, 3));
        write(channel, "x");
        int now = intAt(SEGMENT, NOW);
        assertEquals(1, stat(channel, 0));
        assertEquals(0, stat(channel, 1));
        assertEquals(now, stat(channel, 3));
        assertEquals(0, stat(channel, 4));
        writeMark(channel, 1, bytes("y"), 0, 1, -1);
        assertEquals(5, stat(channel, 9));
        read(channel);
        assertEquals(now, stat(channel, 4));
    }

    @Test
    public void touchRefreshesTheHeartbeatOfTheHolder() {
        int channel = writer();
        int now = intAt(SEGMENT, NOW);
        assertEquals(0, isAlive(channel, 0, 1, 1000));
        assertEquals(now, touch(channel, 10, true));
        assertEquals("client 10 is no record", 0, intAt(channel, 214072 + 9 * 56));
        assertEquals(1, isAlive(channel, 0, 1, 1000));
        assertEquals("not younger than 0 seconds", 0, isAlive(channel, 0, 1, 0));
        assertEquals(0, isAlive(channel, 0, 0, 1000));
        assertEquals(-1, touch(channel, 9, false));
        assertEquals("the record is written all the same", intAt(channel, PIDP),
                intAt(channel, 213512 + 9 * 56));
        assertEquals(now, intAt(channel, 213512 + 9 * 56 + 24));
    }

    @Test
    public void onAFileQueueChannelTheFileQueueHasTheHeartbeat() {
        int channel = fresh('F');
        int now = intAt(SEGMENT, NOW);
        assertEquals(now, touch(channel, -1, true));
        assertEquals(now, touch(channel, -1, false));
        assertEquals(1, isAlive(channel, 0, 1, 1000));
        assertEquals(1, isAlive(channel, 0, 0, 1000));
        byte[] header = new byte[140];
        TestNatives.peek(channel, 0, header);
        assertEquals("wtime", 0, wrap(header).getInt(60));
        assertEquals("rtime", 0, wrap(header).getInt(64));
        assertEquals("fwtime", now, wrap(header).getInt(68));
        assertTrue("pidpf", wrap(header).getInt(132) > 0);
        assertEquals("pidgf", wrap(header).getInt(132), wrap(header).getInt(136));
    }

    @Test
    public void aHeaderThatIsDamagedLaterDoesNotEndTheVm() throws Exception {
        int channel = both();
        int slots = intAt(channel, 0);
        putIntAt(channel, 0, -1);
        int result = write(channel, "x");
        assertTrue("result " + result, result == 0 || result == ESMS_INVAL);
        putIntAt(channel, 0, slots);
        assertEquals(result == 0 ? "x" : "[" + ESMS_TIMEOUT + "]", read(channel));
    }
}
