package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;
import org.junit.Test;

/** What a channel's natives do at once: transfers, marks, buffers, probes, sizes and counts. */
public class NativesTest {
    private static final byte[] X = {'x'};
    private static final int TYPE_9 = TCNT + 9 * RECORD;
    private final int channel = both(); // each test has its own
    private final byte[] buf = bytes("................");

    private int mark(String text, int at) {
        return writeMarkAt(channel, 1, bytes(text), 0, text.length(), at);
    }

    private int mark(String text) throws InterruptedException {
        return writeMark(channel, 1, bytes(text), 0, text.length(), -1);
    }

    // ---- Sizes and counts

    @Test public void sizesAreTheChannelsAndCountsAre64Bit() throws Exception {
        assertEquals(SLOT_SIZE, sizeOfBlock(channel));
        assertEquals(SLOTS - 2, countOfBlocks(channel));
        assertEquals(SLOT_SIZE - 16, sizeOfData(channel));
        put(channel, "x", "y");
        read(channel);
        assertEquals(2, pcount(channel));
        assertEquals(1, gcount(channel));
        putLongAt(channel, PCNT, 0x100000005L);
        assertEquals(0x100000005L, pcount(channel));
        assertEquals(0x100000004L, getCount(channel));
    }

    @Test public void getCountAddsTheFileQueueUnlessThatIsAll() {
        for (int counted : new int[] {channel, fresh('F')}) {
            putLongAt(counted, PCNT, 10);
            putLongAt(counted, GCNT, 3);
            putLongAt(counted, FPCNT, 200);
            putLongAt(counted, FGCNT, 100);
            assertEquals(counted == channel ? 107 : 100, getCount(counted));
        }
    }

    @Test public void pcountForANumberAbove4096TellsAStall() throws Exception {
        assertEquals("nothing waits", 0, pcountFor(channel, 5000));
        put(channel, "x", "x", "x");
        int now = intAt(SEGMENT, NOW);
        putIntAt(channel, LASTOUT, now - 5000);
        assertEquals("not longer than that", ESMS_INVAL, pcountFor(channel, 5000));
        putIntAt(channel, LASTOUT, now - 5001);
        assertEquals(3, pcountFor(channel, 5000));
        putLongAt(channel, FGCNT, 3);
        assertEquals("the file queue's messages count too", 0, pcountFor(channel, 5000));
    }

    @Test public void typesHaveCountsAndRatios() throws Exception {
        long client = 0x1122334455667788L; // the first reader's, in the record behind the table
        IPCFunctions.write(channel, 4095, X, 0, 1, -1);
        IPCFunctions.write(channel, 4096, X, 0, 1, -1);
        putLongAt(channel, TCNT + 4096 * RECORD, client);
        putLongAt(channel, TYPE_9, 7);
        putLongAt(channel, TYPE_9 + ECOUNT, 8);
        putIntAt(channel, TYPE_9 + RATIO, -5);
        assertEquals("every message", 2, pcountFor(channel, 0));
        assertEquals(1, pcountFor(channel, 4095));
        all(ESMS_INVAL, pcountFor(channel, -1), ratio(channel, 4096), ratio(channel, -1),
                resetPCountFor(channel, 4096), resetPCountFor(channel, -1));
        assertEquals(7, resetPCountFor(channel, 9));
        assertEquals(2, pcountFor(channel, 0));
        assertEquals(8, longAt(channel, TYPE_9 + ECOUNT));
        all(-5, ratio(channel, 9));
        all(0, pcountFor(channel, 9), resetPCountFor(channel, -2), pcountFor(channel, 0),
                pcountFor(channel, 4095));
        all(client, pcountFor(channel, 4096));
    }

    // ---- One message in, one out

    @Test public void aRangeOutsideTheArrayIsRefusedBeforeTheChannelIsTouched() throws Exception {
        int marked = both();
        put(marked, "marked");
        put(channel, "message");
        assertEquals(1, readMark(marked, 1, 0));
        byte[] eight = new byte[8];
        int[][] bad = {{5, 4}, {0, 9}, {-1, 4}, {9, 0}, {10, -1}, {Integer.MAX_VALUE, 1},
            {1, Integer.MAX_VALUE}};
        for (int[] range : bad) {
            int from = range[0];
            int length = range[1];
            all(ESMS_INVAL, read(channel, eight, from, length, 0, false),
                    readBuf(channel, eight, from, length, 0, false, 0),
                    view(channel, eight, from, length, 0),
                    readMarked(marked, 0, eight, from, length, false),
                    read(fresh('F'), eight, from, length, 0, false)); // before the owner, too
        }
        takes(channel, "message");
    }

    @Test public void whatDoesNotFitTheRangeIsConsumedAllTheSame() throws Exception {
        put(channel, "0123456789", "0123456789", "0123456789", "0123456789");
        assertEquals(10, read(channel, buf, 2, 4, 0, false));
        assertEquals("..0123....", text(buf, 10));
        assertEquals("a negative length limits nothing", 10,
                read(channel, buf, 0, -1, 0, false));
        assertEquals("0123456789", text(buf, 10));
        raises(ArrayIndexOutOfBoundsException.class,
                () -> read(channel, new byte[9], 0, -1, 0, false));
        assertEquals("room for nothing", ESMS_INVAL, read(channel, buf, 0, 0, 0, false));
        assertEquals(0, getCount(channel));
    }

    @Test public void rawGivesTheSlotFromItsFirstByte() throws Exception {
        byte[] slot = new byte[100];
        IPCFunctions.write(channel, 0x1234, bytes("body"), 0, 4, -1);
        assertEquals(4, read(channel, slot, 10, 90, 0, true));
        assertEquals(1, wrap(slot).getInt(10)); // readable
        assertEquals(4, wrap(slot).getInt(18)); // length
        assertEquals(0x1234, wrap(slot).getShort(22));
        assertEquals("body", text(slot, 24, 4));

        put(channel, "body", "body");
        Arrays.fill(slot, (byte) 0xff);
        assertEquals(4, read(channel, slot, 0, 6, 0, true));
        assertEquals(-1, slot[6]);
        read(channel, slot, 0, 100, 0, true);
        assertEquals("no more than the slot is copied", -1, slot[SLOT_SIZE]);
    }

    @Test public void aBadRangeToWriteRaisesAndWritesZeros() throws Exception {
        raises(ArrayIndexOutOfBoundsException.class,
                () -> IPCFunctions.write(channel, 1, bytes("data"), 2, 3, -1),
                () -> IPCFunctions.write(channel, 1, bytes("data"), -1, 2, -1),
                () -> IPCFunctions.write(channel, 1, X, 0, Integer.MAX_VALUE, -1), // too long
                () -> writeMarkAt(channel, 1, new byte[2], 1, 2, 0));
        String status = new String(Files.readAllBytes(Paths.get("/proc/self/status")));
        assertFalse("memory for it", status.matches("(?s).*VmHWM:\\s+\\d{7}.*")); // a GB
        all(ESMS_INVAL, IPCFunctions.write(channel, 1, X, 0, -1, -1),
                IPCFunctions.write(channel, 1, X, 0, 0, -1));
        assertEquals(ESMS_EXEED, IPCFunctions.write(channel, 1, new byte[64], 0, LONGEST + 1, -1));
        takes(channel, "\0\0\0", "\0\0");
        assertEquals(2, pcount(channel));
        assertEquals(1, writeRollbackAll(channel));
    }

    @Test public void roomIsCountedAndWithoutATimeoutNothingWaitsForIt() throws Exception {
        all(ESMS_INVAL, writeWait4N(channel, 0, -1), writeWait4N(channel, SLOTS + 1, -1));
        assertEquals(SLOTS, writeWait4N(channel, SLOTS, 0));
        put(channel, "x", "x", "x");
        assertEquals(1, writeWait4N(channel, SLOTS, -1));
        mark("x");
        assertEquals(ESMS_PENDING, writeWait4N(channel, 1, 0));
        writeCommit(channel);
        all(ESMS_FULL, write(channel, "more"), mark("more"),
                writeBuf(channel, 1, X, 0, 1, 0, -1));
        assertEquals(0, intAt(channel, WWAIT));
        takes(channel, "x");
    }

    /** A length in a slot, and a number of slots, as no writer leaves them. */
    @Test public void damageNeitherEndsTheVmNorReachesBeyondTheSlot() throws Exception {
        byte[] large = new byte[200];
        Arrays.fill(large, (byte) 0xff);
        put(channel, "x");
        putIntAt(channel, intAt(channel, RPOS) + 8, 1000000);
        assertEquals(SLOT_SIZE - 14, read(channel, large, 0, 200, 0, false));
        assertEquals(-1, large[SLOT_SIZE - 14]);
        int slots = intAt(channel, 0);
        putIntAt(channel, 0, -1);
        int result = write(channel, "x");
        assertTrue("result " + result, result == 0 || result == ESMS_INVAL);
        putIntAt(channel, 0, slots);
        takes(channel, result == 0 ? "x" : "[" + ESMS_TIMEOUT + "]");
    }

    // ---- Buffers

    @Test public void aReadBufferGivesItsMessageUntilItIsCleared() throws Exception {
        put(channel, "one", "two");
        for (int i = 0; i < 2; i++) {
            assertEquals(3, readBuf(channel, buf, 0, 8, 0, false, 4));
            assertEquals("one", text(buf, 3));
        }
        assertEquals(1, statBuf(channel, false, 4));
        assertEquals(0, readBufClear(channel, 4));
        all(ESMS_INVAL, readBufClear(channel, 4), readBuf(channel, buf, 0, 8, 0, false, 5));
        all(0, statBuf(channel, false, 4), statBuf(channel, false, 5)); // where the others begin
        all(ESMS_INVAL, statBuf(channel, true, 6), statBuf(channel, true, -1));
        takes(channel, "two");
    }

    @Test public void aWriteBufferParksItsMessage() throws Exception {
        assertEquals(0, writeBuf(channel, 7, bytes("parked"), 0, 6, 2, -1));
        assertEquals(ESMS_PENDING, writeBuf(channel, 7, X, 0, 1, 2, -1));
        assertEquals(ESMS_INVAL, writeBuf(channel, 7, X, 0, 1, 5, -1));
        assertEquals(1, statBuf(channel, true, 2));
        assertEquals(0, writeBufCommit(channel, 2));
        assertEquals(ESMS_INVAL, writeBufCommit(channel, 2));
        assertEquals(ESMS_NOTARGET, writeBufRollback(channel, 2));
        takes(channel, "parked");
        all(0, writeBuf(channel, 7, bytes("gone"), 0, 4, 0, -1), writeBufRollback(channel, 0),
                getCount(channel));
    }

    // ---- Marks

    @Test public void marksAreCommittedOrDroppedOneByOneOrAsAWhole() throws Exception {
        assertEquals(0, mark("marked"));
        assertEquals(ESMS_PENDING, mark("x"));
        all(0, getCount(channel), writeCommit(channel));
        takes(channel, "marked");
        assertEquals(ESMS_NOTARGET, writeCommit(channel));
        all(0, mark("x"), writeRollback(channel));
        assertEquals(ESMS_NOTARGET, writeRollback(channel));

        all(0, mark("b", 1), mark("a", 0));
        assertEquals(ESMS_PENDING, mark("a", 0));
        all(ESMS_INVAL, mark("z", SLOTS), mark("z", -1));
        assertEquals(ESMS_EXEED, writeMarkAt(channel, 1, new byte[64], 0, LONGEST + 1, 2));
        assertEquals(0, writeCommitAll(channel));
        takes(channel, "a", "b");
        all(0, mark("c", 0), mark("d", 1));
        assertEquals(2, writeRollbackAll(channel));
        all(0, writeRollbackAll(channel), writeCommitAll(channel)); // nothing there is no error
        assertEquals(3, pcount(channel));
    }

    @Test public void markedMessagesAreReleasedOrHandedBack() throws Exception {
        put(channel, "one", "two", "three");
        all(2, readMark(channel, 2, 0), readMarkedCount(channel));
        assertEquals(3, readMarked(channel, 1, buf, 1, 2, false));
        assertEquals(".tw.", text(buf, 4));
        assertEquals(3, readMarked(channel, 0, buf, 0, 16, true));
        assertEquals("state marked", 3, buf[0]);
        all(ESMS_INVAL, readMarked(channel, 0, buf, 0, 0, false),
                readMarked(channel, 2, buf, 0, 16, false),
                readMarked(channel, -1, buf, 0, 16, false));
        all(1, readCommit(channel, 1, false), readRollback(channel));
        takes(channel, "two");
        all(1, readMark(channel, 0, 0), readCommitWithError(channel, 0, "99"));
        assertEquals("no error is recorded", 0, longAt(channel, GCNT + ECOUNT));
        assertEquals(0, readMarkedCount(channel));
        put(channel, "four", "five");
        all(2, readMark(channel, 2, 0), readCommit(channel, 2, true));
        assertEquals("each by the number of all", 4, longAt(channel, GCNT + ECOUNT));
    }

    // ---- Probes

    @Test public void viewCopiesTheSlotOfASideAndConsumesNothing() throws Exception {
        byte[] slot = new byte[SLOT_SIZE];
        put(channel, "seen");
        assertEquals(0, view(channel, slot, 0, SLOT_SIZE, 0));
        assertEquals(1, wrap(slot).getInt(0));
        assertEquals("seen", text(slot, 14, 4));
        assertEquals(0, view(channel, slot, 0, 4, 1));
        assertEquals("the writer's slot is free", 0, wrap(slot).getInt(0));
        assertEquals(0, view(channel, slot, 0, 0, 0));
        takes(channel, "seen");
        putIntAt(channel, PIDP, 1);
        putIntAt(channel, PIDG, 1);
        slot[0] = 9;
        all(ESMS_ACCESS, view(channel, slot, 0, 4, 0), view(channel, slot, 0, 4, 1));
        assertEquals("another side is the writer's, unchecked", 0, view(channel, slot, 0, 4, 7));
        assertEquals(0, wrap(slot).getInt(0));
    }

    @Test public void statTellsStatesAndTimes() throws Exception {
        assertEquals(0, stat(channel, 3));
        put(channel, "x");
        int now = intAt(SEGMENT, NOW);
        all(now, stat(channel, 3));
        all(1, stat(channel, 0));
        all(0, stat(channel, 1), stat(channel, 4));
        mark("x");
        assertEquals(5, stat(channel, 9));
        read(channel);
        assertEquals(now, stat(channel, 4));
    }

    @Test public void touchRefreshesTheHeartbeatOfTheHolder() {
        int held = open(fresh('M'), true);
        int now = intAt(SEGMENT, NOW);
        assertEquals(0, isAlive(held, 0, 1, 1000));
        assertEquals(now, touch(held, 10, true));
        assertEquals("client 10 is no record", 0, intAt(held, WRITERS + 10 * CLIENT));
        assertEquals(1, isAlive(held, 0, 1, 1000));
        assertEquals("not younger than 0 seconds", 0, isAlive(held, 0, 1, 0));
        assertEquals(0, isAlive(held, 0, 0, 1000));
        assertEquals(-1, touch(held, 9, false));
        assertEquals("the record is written all the same", intAt(held, PIDP),
                intAt(held, READERS + 9 * CLIENT));
        assertEquals(now, intAt(held, READERS + 9 * CLIENT + CLIENT_TIME));
    }

    @Test public void onAFileQueueChannelTheFileQueueHasTheHeartbeat() {
        int fed = fresh('F');
        int now = intAt(SEGMENT, NOW);
        all(now, touch(fed, -1, true), touch(fed, -1, false), intAt(fed, FWTIME));
        all(1, isAlive(fed, 0, 1, 1000), isAlive(fed, 0, 0, 1000));
        all(0, intAt(fed, WTIME), intAt(fed, RTIME));
        all(intAt(channel, PIDP), intAt(fed, PIDPF), intAt(fed, PIDGF));
    }
}
