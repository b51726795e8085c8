package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** Waits: time limits, wake-ups and interruptions. */
public class BlockingTest {
    private static final int LONG = 60000;
    private static final byte[] X = {'x'};

    /** A call in a thread of its own. */
    private static final class Waiting<T> extends FutureTask<T> {
        volatile long thread;

        static <T> Waiting<T> on(int channel, int announcement, Callable<T> call) throws Exception {
            Waiting<T> waiting = new Waiting<>(call);
            Thread thread = new Thread(waiting);
            thread.setDaemon(true);
            thread.start();
            await(channel, announcement, 1);
            return waiting;
        }

        private Waiting(Callable<T> call) {
            super(call);
        }

        @Override
        public void run() {
            thread = TestNatives.thisThread();
            super.run();
        }

        T result() throws Exception {
            return get(30, TimeUnit.SECONDS);
        }

        void stillWaits() {
            assertThrows(TimeoutException.class, () -> get(250, TimeUnit.MILLISECONDS));
        }
    }

    @Before
    public void startMonitor() {
        attach();
        TimeoutMonitor.start();
    }

    @After
    public void stopMonitor() {
        TimeoutMonitor.stop();
    }

    private static void fill(int channel) throws Exception {
        for (int i = 0; i < SLOTS; i++) {
            assertEquals(0, write(channel, "x"));
        }
    }

    /** Runs a call that must take about 200 ms, and returns its result. */
    private static int after200(Callable<Integer> call) throws Exception {
        long start = System.nanoTime();
        int result = call.call();
        long millis = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - start);
        assertTrue(millis + " ms", millis >= 199 && millis < 5000);
        return result;
    }

    @Test
    public void waitsEndInTime() throws Exception {
        int channel = both();
        byte[] buf = new byte[8];
        assertEquals(ESMS_TIMEOUT, after200(() -> read(channel, buf, 0, 8, 200, false)));
        assertEquals(ESMS_TIMEOUT, after200(() -> readBuf(channel, buf, 0, 8, 200, false, 0)));
        assertEquals("as if nothing were there", 0, after200(() -> readMark(channel, 0, 200)));
        assertEquals("until the next pass", ESMS_TIMEOUT, read(channel, buf, 0, 8, -1, false));
        fill(channel);
        assertEquals(ESMS_TIMEOUT, after200(() -> IPCFunctions.write(channel, 1, X, 0, 1, 200)));
        assertEquals(ESMS_TIMEOUT, after200(() -> writeMark(channel, 1, X, 0, 1, 200)));
        assertEquals(ESMS_TIMEOUT, after200(() -> writeBuf(channel, 1, X, 0, 1, 0, 200)));
        assertEquals(ESMS_TIMEOUT, after200(() -> writeWait4N(channel, 1, 200)));
        assertEquals(ESMS_TIMEOUT, IPCFunctions.write(channel, 1, X, 0, 1, 0));
        assertEquals(ESMS_ACCESS, after200(() -> openChannel("second", channel, true, 200)));
        assertEquals(0, intAt(channel, RWAIT));
        assertEquals(0, intAt(channel, WWAIT));
        assertEquals("x", read(channel));
    }

    @Test
    public void withoutTheMonitorNoTimeoutFires() throws Exception {
        TimeoutMonitor.stop();
        int channel = reader();
        Waiting<Integer> reader = Waiting.on(channel, RWAIT,
                () -> read(channel, new byte[8], 0, 8, 1, false));
        reader.stillWaits();
        assertEquals(0, monitorTimeout());
        assertEquals(ESMS_TIMEOUT, (int) reader.result());
    }

    @Test
    public void aWriteWakesAReaderAndAReadAWriter() throws Exception {
        int channel = both();
        byte[] buf = new byte[8];
        Waiting<Integer> reader =
                Waiting.on(channel, RWAIT, () -> read(channel, buf, 0, 8, LONG, false));
        write(channel, "hello");
        assertEquals(5, (int) reader.result());
        fill(channel);
        Waiting<Integer> writer = Waiting.on(channel, WWAIT,
                () -> IPCFunctions.write(channel, 1, X, 0, 1, LONG));
        assertEquals("x", read(channel));
        assertEquals(0, (int) writer.result());
        Waiting<Integer> counter = Waiting.on(channel, WWAIT, () -> writeWait4N(channel, 2, LONG));
        assertEquals(2, readMark(channel, 2, 0));
        assertEquals(2, readCommit(channel, 2, false));
        assertEquals(2, (int) counter.result());
    }

    /** Its room was made before the wait, of the size that the slots had then. */
    @Test
    public void aReaderTakesNoSlotThatOutgrewItsRoomMeanwhile() throws Exception {
        int channel = both();
        int parking = both();
        byte[] buf = new byte[2 * SLOT_SIZE];
        staysWhenOutgrown(channel, () -> read(channel, buf, 0, buf.length, LONG, true));
        staysWhenOutgrown(parking, () -> readBuf(parking, buf, 0, buf.length, LONG, true, 0));
    }

    private static void staysWhenOutgrown(int channel, Callable<Integer> read) throws Exception {
        Waiting<Integer> reader = Waiting.on(channel, RWAIT, read);
        putIntAt(channel, QBSZ, 2 * SLOT_SIZE);
        write(channel, "hello");
        assertEquals(ESMS_FAILED, (int) reader.result());
        assertEquals("hello", read(channel));
    }

    @Test
    public void aCommitWakesAReader() throws Exception {
        int channel = both();
        writeMark(channel, 1, X, 0, 1, -1);
        Waiting<Integer> marker = Waiting.on(channel, RWAIT, () -> readMark(channel, 0, LONG));
        assertEquals(0, writeCommit(channel));
        assertEquals(1, (int) marker.result());
        readCommit(channel, 0, false);
        writeMarkAt(channel, 1, X, 0, 1, 0);
        Waiting<Integer> reader = Waiting.on(channel, RWAIT,
                () -> readBuf(channel, new byte[8], 0, 8, LONG, false, 0));
        assertEquals(0, writeCommitAll(channel));
        assertEquals(1, (int) reader.result());
    }

    @Test
    public void onlyWhatMakesAMessageReadablePostsAndAParkedOneDoesNot() throws Exception {
        int channel = both();
        assertEquals(0, writeBuf(channel, 1, X, 0, 1, 0, -1));
        putIntAt(channel, RWAIT, 1); // as if a reader waited
        assertEquals(0, writeBufCommit(channel, 0));
        assertEquals(0, writeMark(channel, 1, X, 0, 1, -1));
        assertEquals(0, writeRollback(channel));
        assertEquals(1, intAt(channel, RWAIT));
        assertEquals(0, posts(channel));
        writeMark(channel, 1, X, 0, 1, -1);
        writeCommit(channel);
        assertEquals(1, posts(channel));
    }

    @Test
    public void aTransferPostsOnlyForAnnouncedWaiters() throws Exception {
        int channel = both();
        write(channel, "x");
        assertEquals(0, posts(channel));
        putIntAt(channel, RWAIT, 1);
        putIntAt(channel, WWAIT, 1);
        write(channel, "x");
        assertEquals(1, posts(channel));
        assertEquals("the writer waits no more", 0, intAt(channel, WWAIT));
        assertEquals(0, requests(channel));
        putIntAt(channel, WWAIT, 1);
        assertEquals("x", read(channel));
        assertEquals(1, requests(channel));
        assertEquals("the reader waits no more", 0, intAt(channel, RWAIT));
        putIntAt(channel, RWAIT, 1);
        assertEquals(1, readMark(channel, 0, 0));
        assertEquals("a mark leaves the announcement", 1, intAt(channel, RWAIT));
    }

    private static int posts(int channel) {
        return TestNatives.semaphore(System.getProperty("halvo.test.key") + ".post", channel);
    }

    private static int requests(int channel) {
        return TestNatives.semaphore(System.getProperty("halvo.test.key") + ".req", channel);
    }

    @Test
    public void aForeignSignalEndsARead() throws Exception {
        int channel = reader();
        byte[] buf = new byte[8];
        Waiting<Integer> reader =
                Waiting.on(channel, RWAIT, () -> read(channel, buf, 0, 8, LONG, false));
        assertEquals(0, TestNatives.interrupt(reader.thread));
        assertEquals(ESMS_JAVAINTR, (int) reader.result());
        Waiting<Integer> marker = Waiting.on(channel, RWAIT, () -> readMark(channel, 0, LONG));
        TestNatives.interrupt(marker.thread);
        assertEquals(ESMS_JAVAINTR, (int) marker.result());
    }

    private static void raisesInterrupted(int channel, Callable<Integer> write) throws Exception {
        Waiting<Integer> writer = Waiting.on(channel, WWAIT, write);
        TestNatives.interrupt(writer.thread);
        Throwable raised = assertThrows(ExecutionException.class, writer::result).getCause();
        assertEquals(InterruptedException.class, raised.getClass());
        Matcher text = Pattern.compile("sendMessage interrupted at #(-?\\d+)")
                .matcher(raised.getMessage());
        assertTrue(raised.getMessage(), text.matches());
        assertEquals((int) writer.thread, Integer.parseInt(text.group(1)));
        assertEquals(0, intAt(channel, WWAIT));
    }

    @Test
    public void aForeignSignalEndsAWriteWithAnException() throws Exception {
        int channel = both();
        fill(channel);
        raisesInterrupted(channel, () -> IPCFunctions.write(channel, 1, X, 0, 1, LONG));
        raisesInterrupted(channel, () -> writeMark(channel, 1, X, 0, 1, LONG));
        raisesInterrupted(channel, () -> writeBuf(channel, 1, X, 0, 1, 0, LONG));
        raisesInterrupted(channel, () -> writeWait4N(channel, 1, LONG));
        assertEquals(SLOTS, getCount(channel));
    }

    @Test
    public void anInterruptionDoesNotHideTheBadRangeThatCameFirst() throws Exception {
        int channel = both();
        fill(channel);
        Waiting<Integer> writer = Waiting.on(channel, WWAIT,
                () -> IPCFunctions.write(channel, 1, X, 1, 1, LONG));
        TestNatives.interrupt(writer.thread);
        assertEquals(ArrayIndexOutOfBoundsException.class,
                assertThrows(ExecutionException.class, writer::result).getCause().getClass());
    }

    @Test
    public void aFullRegistryEndsReadBufAlone() throws Exception {
        int channel = both();
        CountDownLatch full = new CountDownLatch(1);
        CountDownLatch done = new CountDownLatch(1);
        Thread others = new Thread(() -> {
            TestNatives.fillRegistry();
            full.countDown();
            try {
                done.await();
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            TestNatives.emptyRegistry();
        });
        others.start();
        full.await();
        byte[] buf = new byte[8];
        assertEquals(ESMS_MTXLOCK, readBuf(channel, buf, 0, 8, LONG, false, 0));
        assertEquals("stays raised", 1, intAt(channel, RWAIT));
        putIntAt(channel, RWAIT, 0);
        Waiting<Integer> reader = // without a time limit
                Waiting.on(channel, RWAIT, () -> read(channel, buf, 0, 8, 1, false));
        reader.stillWaits();
        write(channel, "x");
        assertEquals(1, (int) reader.result());
        done.countDown();
        others.join();
    }

    @Test
    public void theVmCanEndWhileAThreadWaits() throws Exception {
        int channel = reader();
        Waiting<Integer> reader = Waiting.on(channel, RWAIT,
                () -> read(channel, new byte[8], 0, 8, LONG, false));
        assertFalse(reader.isDone()); // the end of the VM itself is seen from outside
    }
}
