package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.InThread.waiting;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** Waits of the natives: time limits, wake-ups and interruptions. */
public class BlockingTest {
    private static final int LONG = 60000;
    private static final byte[] X = {'x'};
    private final byte[] buf = new byte[2 * SLOT_SIZE];
    private final int channel = both(); // each test has its own

    @Before
    public void startMonitor() {
        TimeoutMonitor.start();
    }

    @After
    public void stopMonitor() {
        TimeoutMonitor.stop();
    }

    private int readWithin(int millis) {
        return read(channel, buf, 0, 8, millis, false);
    }

    private int writeWithin(int millis) throws InterruptedException {
        return IPCFunctions.write(channel, 1, X, 0, 1, millis);
    }

    /** Calls that must each take about 100 ms, and what all return. */
    @SafeVarargs
    private static void after100(int result, Callable<Integer>... calls) throws Exception {
        for (Callable<Integer> call : calls) {
            long start = System.nanoTime();
            assertEquals(result, (int) call.call());
            long millis = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - start);
            assertTrue(millis + " ms", millis >= 99 && millis < 5000);
        }
    }

    @Test public void waitsEndInTime() throws Exception {
        after100(ESMS_TIMEOUT, () -> readWithin(100),
                () -> readBuf(channel, buf, 0, 8, 100, false, 0));
        after100(0, () -> readMark(channel, 0, 100)); // as if nothing were there
        assertEquals("until the next pass", ESMS_TIMEOUT, readWithin(-1));
        fill(channel);
        after100(ESMS_TIMEOUT, () -> writeWithin(100), () -> mark(100),
                () -> park(100), () -> writeWait4N(channel, 1, 100));
        after100(ESMS_ACCESS, () -> openChannel("second", channel, true, 100));
        all(0, closeChannel(channel, true), openChannel("second", channel, true, 100));
        assertEquals(ESMS_TIMEOUT, writeWithin(0));
        all(0, intAt(channel, RWAIT), intAt(channel, WWAIT));
        takes(channel, "x");
    }

    @Test public void withoutTheMonitorNoTimeoutFires() throws Exception {
        TimeoutMonitor.stop();
        InThread reader = waiting(channel, RWAIT, () -> readWithin(1));
        reader.stillWaits(150);
        assertEquals(0, monitorTimeout());
        assertEquals(ESMS_TIMEOUT, reader.result());
    }

    private void wakes(int announcement, Object result, Callable<?> wait, Callable<?> call)
            throws Exception {
        InThread waiting = waiting(channel, announcement, wait);
        call.call();
        assertEquals(result, waiting.result());
    }

    @Test public void transfersAndCommitsWakeTheOtherSide() throws Exception {
        wakes(RWAIT, 5, () -> readWithin(LONG), () -> write(channel, "hello"));
        fill(channel);
        wakes(WWAIT, 0, () -> writeWithin(LONG), () -> read(channel));
        wakes(WWAIT, 2, () -> writeWait4N(channel, 2, LONG),
                () -> readMark(channel, 2, 0) + readCommit(channel, 2, false));
        takes(channel, "x", "x");
        mark(-1);
        wakes(RWAIT, 1, () -> readMark(channel, 0, LONG), () -> writeCommit(channel));
        readCommit(channel, 0, false);
        writeMarkAt(channel, 1, X, 0, 1, 0);
        wakes(RWAIT, 1, () -> readBuf(channel, buf, 0, 8, LONG, false, 0),
                () -> writeCommitAll(channel));
    }

    /** Its room was made before the wait, of the size that the slots had then. */
    @Test public void aReaderTakesNoSlotThatOutgrewItsRoomMeanwhile() throws Exception {
        int parking = both();
        staysWhenOutgrown(channel, () -> read(channel, buf, 0, buf.length, LONG, true));
        staysWhenOutgrown(parking, () -> readBuf(parking, buf, 0, buf.length, LONG, true, 0));
    }

    private static void staysWhenOutgrown(int channel, Callable<Integer> read) throws Exception {
        InThread reader = waiting(channel, RWAIT, read);
        putIntAt(channel, QBSZ, 2 * SLOT_SIZE);
        put(channel, "hello");
        assertEquals(ESMS_FAILED, reader.result());
        takes(channel, "hello");
    }

    // ---- Who is woken

    /** The posts since the last look. */
    private int posts(int announcement) {
        return takePosts(KEY + (announcement == RWAIT ? ".post" : ".req"), channel);
    }

    /** Calls that each post once for the other side, which seems to wait. */
    private void wake(int announcement, Callable<?>... calls) throws Exception {
        for (Callable<?> call : calls) {
            putIntAt(channel, announcement, 1);
            call.call();
            assertEquals(1, posts(announcement));
        }
    }

    private int mark(int timeout) throws InterruptedException {
        return writeMark(channel, 1, X, 0, 1, timeout);
    }

    private int park(int timeout) throws InterruptedException {
        return writeBuf(channel, 1, X, 0, 1, 0, timeout);
    }

    @Test public void onlyWhatMakesAMessageReadablePostsAndAParkedOneDoesNot() throws Exception {
        assertEquals(0, park(-1));
        putIntAt(channel, RWAIT, 1); // as if a reader waited
        all(0, writeBufCommit(channel, 0), mark(-1), writeRollback(channel), posts(RWAIT));
        assertEquals(1, intAt(channel, RWAIT));
        wake(RWAIT, () -> write(channel, "x"), () -> mark(-1) + writeCommit(channel),
                () -> writeMarkAt(channel, 1, X, 0, 1, 0) + writeCommitAll(channel));
        wake(WWAIT, () -> read(channel), () -> readBuf(channel, buf, 0, 8, 0, false, 0),
                () -> readMark(channel, 1, 0) + readCommit(channel, 1, false),
                () -> readMark(channel, 1, 0) + readCommitWithError(channel, 1, "1"));
        putIntAt(channel, RWAIT, 0);
        put(channel, "x");
        assertEquals("nobody waits", 0, posts(RWAIT));
    }

    /** The announcement of a side behind a call of that side, before which it stood. */
    private int announced(int announcement, Callable<?> call) throws Exception {
        putIntAt(channel, announcement, 1);
        call.call();
        return intAt(channel, announcement);
    }

    @Test public void aTransferEndsTheAnnouncementOfItsSideAndAMarkLeavesIt() throws Exception {
        all(0, announced(WWAIT, () -> write(channel, "x")), announced(WWAIT, () -> park(-1)),
                announced(RWAIT, () -> read(channel)));
        all(0, writeBufCommit(channel, 0), write(channel, "x"),
                announced(RWAIT, () -> readBuf(channel, buf, 0, 8, 0, false, 0)));
        all(1, announced(RWAIT, () -> readMark(channel, 1, 0)), announced(WWAIT, () -> mark(-1)));
    }

    // ---- Interruptions

    @Test public void aForeignSignalEndsARead() throws Exception {
        InThread reader = waiting(channel, RWAIT, () -> readWithin(LONG));
        reader.signal();
        assertEquals(ESMS_JAVAINTR, reader.result());
        InThread marker = waiting(channel, RWAIT, () -> readMark(channel, 0, LONG));
        marker.signal();
        assertEquals(ESMS_JAVAINTR, marker.result());
    }

    private void raisesInterrupted(Callable<Integer> write) throws Exception {
        InThread writer = waiting(channel, WWAIT, write);
        writer.signal();
        Throwable raised = writer.failure();
        assertEquals(InterruptedException.class, raised.getClass());
        assertEquals("sendMessage interrupted at #" + (int) writer.pthread, raised.getMessage());
        assertEquals(0, intAt(channel, WWAIT));
    }

    @Test public void aForeignSignalEndsAWriteWithAnException() throws Exception {
        fill(channel);
        raisesInterrupted(() -> writeWithin(LONG));
        raisesInterrupted(() -> mark(LONG));
        raisesInterrupted(() -> park(LONG));
        raisesInterrupted(() -> writeWait4N(channel, 1, LONG));
        InThread outside = // whose bad range came first
                waiting(channel, WWAIT, () -> IPCFunctions.write(channel, 1, X, 1, 1, LONG));
        outside.signal();
        assertEquals(ArrayIndexOutOfBoundsException.class, outside.failure().getClass());
        assertEquals(SLOTS, getCount(channel));
    }

    @Test public void aFullRegistryEndsReadBufAlone() throws Exception {
        CountDownLatch full = new CountDownLatch(1);
        CountDownLatch done = new CountDownLatch(1);
        InThread others = InThread.call(() -> {
            fillRegistry();
            full.countDown();
            done.await();
            emptyRegistry();
        });
        full.await();
        assertEquals(ESMS_MTXLOCK, readBuf(channel, buf, 0, 8, LONG, false, 0));
        assertEquals("stays raised", 1, intAt(channel, RWAIT));
        putIntAt(channel, RWAIT, 0);
        InThread reader = waiting(channel, RWAIT, () -> readWithin(1)); // without a time limit
        reader.stillWaits(250);
        put(channel, "x");
        assertEquals(1, reader.result());
        done.countDown();
        others.result();
    }

    /** A daemon's wait outlives the tests; the end of the VM itself is seen from outside. */
    @Test public void theVmCanEndWhileAThreadWaits() throws Exception {
        assertFalse(waiting(channel, RWAIT, () -> readWithin(LONG)).isDone());
    }
}
