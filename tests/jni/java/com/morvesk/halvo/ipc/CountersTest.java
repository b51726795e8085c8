package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;

import org.junit.Test;

/** Sizes and counts. */
public class CountersTest {
    @Test
    public void sizesAreTheChannels() {
        int channel = fresh('M');
        assertEquals(SLOT_SIZE, sizeOfBlock(channel));
        assertEquals(SLOTS - 2, countOfBlocks(channel));
        assertEquals(SLOT_SIZE - 16, sizeOfData(channel));
    }

    @Test
    public void countsAre64Bit() throws Exception {
        int channel = both();
        write(channel, "x");
        write(channel, "y");
        read(channel);
        assertEquals(2, pcount(channel));
        assertEquals(1, gcount(channel));
        putLongAt(channel, PCNT, 0x100000005L);
        assertEquals(0x100000005L, pcount(channel));
        assertEquals(0x100000004L, getCount(channel));
    }

    @Test
    public void getCountAddsTheFileQueueUnlessThatIsAll() {
        for (char type : new char[] {'M', 'F'}) {
            int channel = fresh(type);
            putLongAt(channel, PCNT, 10);
            putLongAt(channel, GCNT, 3);
            putLongAt(channel, FPCNT, 200);
            putLongAt(channel, FGCNT, 100);
            assertEquals(type == 'F' ? 100 : 107, getCount(channel));
        }
    }

    @Test
    public void pcountForANumberAbove4096TellsAStall() throws Exception {
        int channel = both();
        assertEquals("nothing waits", 0, pcountFor(channel, 5000));
        for (int i = 0; i < 3; i++) {
            write(channel, "x");
        }
        int now = intAt(SEGMENT, NOW);
        putIntAt(channel, LASTOUT, now - 5000);
        assertEquals("not longer than that", ESMS_INVAL, pcountFor(channel, 5000));
        putIntAt(channel, LASTOUT, now - 5001);
        assertEquals(3, pcountFor(channel, 5000));
        putLongAt(channel, FGCNT, 3);
        assertEquals("the file queue's messages count too", 0, pcountFor(channel, 5000));
    }

    @Test
    public void pcountForATypeIsItsCount() throws Exception {
        int channel = both();
        IPCFunctions.write(channel, 4095, bytes("x"), 0, 1, -1);
        IPCFunctions.write(channel, 4096, bytes("x"), 0, 1, -1);
        assertEquals("every message", 2, pcountFor(channel, 0));
        assertEquals(1, pcountFor(channel, 4095));
        assertEquals(ESMS_INVAL, pcountFor(channel, -1));
        putLongAt(channel, TCNT + 4096 * RECORD, 0x1122334455667788L); // the first reader's client
        assertEquals(0x1122334455667788L, pcountFor(channel, 4096));
    }

    @Test
    public void resetClearsTheCountAlone() throws Exception {
        int channel = both();
        int record = TCNT + 9 * RECORD;
        putLongAt(channel, record, 7);
        putLongAt(channel, record + ECOUNT, 8);
        LiveStat.setInt(channel, LiveStat.IID_SETI_TRATIO, 9, 10);
        assertEquals(7, resetPCountFor(channel, 9));
        assertEquals(0, pcountFor(channel, 9));
        assertEquals(8, longAt(channel, record + ECOUNT));
        assertEquals(10, ratio(channel, 9));

        putLongAt(channel, TCNT, 5);
        putLongAt(channel, TCNT + 4095 * RECORD, 5);
        putLongAt(channel, TCNT + 4096 * RECORD, 5);
        assertEquals(ESMS_INVAL, resetPCountFor(channel, 4096));
        assertEquals(ESMS_INVAL, resetPCountFor(channel, -1));
        assertEquals(5, pcountFor(channel, 0));
        assertEquals(0, resetPCountFor(channel, -2));
        assertEquals(0, pcountFor(channel, 0));
        assertEquals(0, pcountFor(channel, 4095));
        assertEquals("behind the table", 5, pcountFor(channel, 4096));
    }

    @Test
    public void ratioIsForTypesOfTheTable() {
        int channel = fresh('M');
        putIntAt(channel, TCNT + 4095 * RECORD + 24, -5);
        assertEquals(-5, ratio(channel, 4095));
        assertEquals(ESMS_INVAL, ratio(channel, 4096));
        assertEquals(ESMS_INVAL, ratio(channel, -1));
    }
}
