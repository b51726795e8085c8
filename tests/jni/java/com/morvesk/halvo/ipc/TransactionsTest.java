package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;

import org.junit.Test;

/** Marks, commits and rollbacks of both sides. */
public class TransactionsTest {
    private static int mark(int channel, String text, int at) {
        return writeMarkAt(channel, 1, bytes(text), 0, text.length(), at);
    }

    @Test
    public void aMarkedMessageIsReadableAfterItsCommit() throws Exception {
        int channel = both();
        assertEquals(0, writeMark(channel, 1, bytes("marked"), 0, 6, -1));
        assertEquals(ESMS_PENDING, writeMark(channel, 1, bytes("second"), 0, 6, -1));
        assertEquals(0, getCount(channel));
        assertEquals(0, writeCommit(channel));
        assertEquals("marked", read(channel));
        assertEquals(ESMS_NOTARGET, writeCommit(channel));
        assertEquals(0, writeMark(channel, 1, bytes("marked"), 0, 6, -1));
        assertEquals(0, writeRollback(channel));
        assertEquals(ESMS_NOTARGET, writeRollback(channel));
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> writeMarkAt(channel, 1, new byte[2], 1, 2, 0));
        assertEquals(1, writeRollbackAll(channel));
    }

    @Test
    public void aBatchIsCommittedOrDroppedAsAWhole() {
        int channel = both();
        assertEquals(0, mark(channel, "b", 1));
        assertEquals(0, mark(channel, "a", 0));
        assertEquals(ESMS_PENDING, mark(channel, "a", 0));
        assertEquals(ESMS_INVAL, mark(channel, "z", SLOTS));
        assertEquals(ESMS_INVAL, mark(channel, "z", -1));
        assertEquals(ESMS_EXEED, writeMarkAt(channel, 1, new byte[64], 0, LONGEST + 1, 2));
        assertEquals(0, writeCommitAll(channel));
        assertEquals("a", read(channel));
        assertEquals("b", read(channel));
        mark(channel, "c", 0);
        mark(channel, "d", 1);
        assertEquals(2, writeRollbackAll(channel));
        assertEquals(0, writeRollbackAll(channel));
        assertEquals("nothing to commit is no error", 0, writeCommitAll(channel));
        assertEquals(2, pcount(channel));
    }

    @Test
    public void markedMessagesAreReleasedOrHandedBack() throws Exception {
        int channel = both();
        for (String text : new String[] {"one", "two", "three"}) {
            write(channel, text);
        }
        assertEquals(2, readMark(channel, 2, 0));
        assertEquals(2, readMarkedCount(channel));
        byte[] buf = new byte[16];
        assertEquals(3, readMarked(channel, 1, buf, 1, 2, false));
        assertEquals("\0tw\0", text(buf, 4));
        assertEquals(3, readMarked(channel, 0, buf, 0, 16, true));
        assertEquals("state marked", 3, buf[0]);
        assertEquals(ESMS_INVAL, readMarked(channel, 0, buf, 0, 0, false));
        assertEquals(ESMS_INVAL, readMarked(channel, 2, buf, 0, 16, false));
        assertEquals(ESMS_INVAL, readMarked(channel, -1, buf, 0, 16, false));
        assertEquals(1, readCommit(channel, 1, false));
        assertEquals(1, readRollback(channel));
        assertEquals("two", read(channel));
        assertEquals(1, readMark(channel, 0, 0));
        assertEquals(1, readCommitWithError(channel, 0, "99"));
        assertEquals("no error is recorded", 0, longAt(channel, GCNT + ECOUNT));
        assertEquals(0, readMarkedCount(channel));
    }

    @Test
    public void aFlaggedCommitAddsItsCountForEachMessage() throws Exception {
        int channel = both();
        write(channel, "one");
        write(channel, "two");
        readMark(channel, 2, 0);
        assertEquals(2, readCommit(channel, 2, true));
        assertEquals(4, LiveStat.getLong(channel, LiveStat.IID_GETL_ECOUNT));
    }
}
