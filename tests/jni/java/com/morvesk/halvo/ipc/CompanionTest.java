package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.io.EOFException;
import java.nio.ByteBuffer;
import java.time.Duration;
import org.junit.Test;

/** Channel with its batches and marked messages, and TimeoutMonitor. */
public class CompanionTest extends TwoEnds {
    // ---- Failures

    @Test public void failuresTellTheirCodeWhoAndHowMuch() throws Exception {
        refused(ESMS_INVAL, () -> Channel.openReader("test", "no channel", SHORT),
                () -> out.tryWrite(1, new byte[0]));
        refused(ESMS_ACCESS, "held by process " + LifecycleTest.ownProcess() + " (billing)",
                () -> Channel.openWriter("test", name, SHORT));
        refused(ESMS_EXEED, "49 bytes, at most 48",
                () -> out.write(1, new byte[LONGEST + 1], SHORT));
        for (int type : new int[] {-1, 65536, 70000}) {
            raises(IllegalArgumentException.class, () -> out.write(type, X, SHORT),
                    () -> out.tryWrite(type, X), () -> out.batch().write(type, X));
        }
        raises(IndexOutOfBoundsException.class, () -> out.write(1, new byte[4], 3, 2, SHORT));
        assertEquals(0, pcount(number));
        refused(ESMS_TIMEOUT, () -> in.read(Duration.ofMillis(-5)), () -> in.read(SHORT));
        fill(number);
        refused(ESMS_TIMEOUT, () -> out.write(1, X, SHORT));
        int own = intAt(number, PIDP);
        putIntAt(number, PIDP, 1);
        refused(ESMS_ACCESS, "held by process 1 (billing)", () -> out.write(1, X, SHORT));
        putIntAt(number, PIDP, own);
    }

    @Test public void anEndWorksInItsDirectionAloneUntilItIsClosed() throws Exception {
        raises(IllegalStateException.class, () -> out.read(SHORT), () -> out.poll(SHORT),
                out::tryRead, () -> out.mark(1, SHORT), () -> out.read(new byte[9], 0, 9, SHORT),
                () -> out.forEach(m -> { }, SHORT), () -> in.write(1, X, SHORT),
                () -> in.tryWrite(1, X), in::batch);
        out.close();
        out.close();
        raises(IllegalStateException.class, () -> out.write(1, X, SHORT),
                () -> out.tryWrite(1, X));
        Channel.openWriter("test", name, SHORT).close();
    }

    /** Damage that comes while an opening waits for the end makes its recovery fail. */
    @Test public void anEndThatCannotBeRecoveredIsGivenBack() throws Exception {
        InThread opening = InThread.call(() -> Channel.openWriter("second", name, LONG));
        opening.stillWaits(100);
        putIntAt(number, QBSZ, 0);
        out.close();
        Throwable failure = opening.failure();
        putIntAt(number, QBSZ, SLOT_SIZE);
        assertEquals(failure.getMessage(), ESMS_INVAL, ((HalvoException) failure).code());
        Channel.openWriter("test", name, SHORT).close();
    }

    // ---- Batches

    @Test public void aBatchIsWrittenAsAWhole() throws Exception {
        try (Batch dropped = out.batch()) {
            dropped.write(1, bytes("dropped"));
        }
        Batch batch = out.batch();
        batch.commit(); // nothing
        assertNull(in.tryRead());
        batch.write(1, bytes("one"));
        batch.write(2, bytes("<two>"), 1, 3);
        batch.write(0xfedc, new byte[LONGEST]);
        refused(ESMS_EXEED, () -> batch.write(1, new byte[LONGEST + 1]));
        refused(ESMS_INVAL, () -> batch.write(1, new byte[0]));
        assertNull(in.tryRead());
        send("first", "second");
        refused(ESMS_FULL, batch::commit);
        refused(ESMS_TIMEOUT, () -> batch.commit(SHORT));
        assertEquals(3, batch.size());
        InThread commit = InThread.call(() -> batch.commit(LONG));
        receive("first");
        commit.result();
        assertEquals(0, batch.size());
        receive("second", "one", "two");
        Channel.Message message = in.read(Duration.ofDays(1_000_000));
        assertEquals(0xfedc, message.type());
        assertEquals(out.longestMessage(), message.body().length);
        for (int i = 0; i < SLOTS; i++) {
            batch.write(1, X);
        }
        refused(ESMS_FULL, () -> batch.write(1, bytes("one more than slots")));
        batch.close();
        raises(IllegalStateException.class, () -> batch.write(1, X));
    }

    /** Slots that shrink meanwhile: only damage makes a batch stop in its middle. */
    @Test public void aBatchThatStopsInItsMiddleKeepsTheRest() throws Exception {
        Batch batch = out.batch();
        batch.write(1, bytes("one"));
        batch.write(2, bytes("two of more than there is room for"));
        batch.write(3, bytes("three"));
        int next = intAt(number, WPOS) + SLOT_SIZE;
        putIntAt(number, QBSZ, SLOT_SIZE / 2);
        refused(ESMS_FAILED, "1 messages were written, 2 were not", batch::commit);
        putIntAt(number, QBSZ, SLOT_SIZE);
        putIntAt(number, WPOS, next);
        assertEquals(2, batch.size());
        batch.commit();
        receive("one", "two of more than there is room for", "three");
    }

    // ---- Marked messages

    private static String all(Marked messages) {
        StringBuilder all = new StringBuilder();
        for (Channel.Message message : messages) {
            all.append(text(message.body(), message.body().length)).append(message.type());
        }
        return all.toString();
    }

    @Test public void markedMessagesAreReleasedByTheirCommit() throws Exception {
        try (Marked none = in.mark(9, SHORT)) {
            assertEquals(0, none.size());
            none.commit();
        }
        send("a", "b", "c", "d");
        try (Marked left = in.mark(3, SHORT)) {
            assertEquals("a1b1c1", all(left));
            raises(IllegalStateException.class, () -> in.read(SHORT)); // although d is there
        }
        Marked marked = in.mark(99, SHORT);
        assertEquals("a1b1c1d1", all(marked));
        marked.commit(1);
        raises(IllegalArgumentException.class, () -> marked.commit(4));
        raises(IllegalStateException.class, () -> in.read(SHORT), in::tryRead);
        marked.commitWithErrors(2);
        assertEquals(2, LiveStat.getLong(number, LiveStat.IID_GETL_ECOUNT));
        InThread other = InThread.call(() -> receive("d"));
        other.stillWaits(50);
        assertEquals("d1", all(marked));
        marked.close();
        raises(IllegalStateException.class, marked::commit);
        other.result();

        send("again");
        Marked lost = in.mark(1, SHORT);
        in.close();
        raises(IllegalStateException.class, lost::commit);
        lost.close();
        in = Channel.openReader("test", name, SHORT);
        receive("again");
    }

    @Test public void aListenerCommitsWhatItHandled() throws Exception {
        send("a", "b", "c");
        StringBuilder seen = new StringBuilder();
        raises(EOFException.class, () -> in.forEach(message -> {
            seen.append((char) message.body()[0]);
            if (seen.length() == 2) {
                throw new EOFException();
            }
        }, SHORT));
        assertEquals(2, in.<RuntimeException>forEach(
                message -> seen.append((char) message.body()[0]), SHORT));
        assertEquals("abbc", seen.toString());
    }

    // ---- Reads into the caller's memory

    @Test public void messagesComeIntoTheCallersMemory() throws Exception {
        assertNull(in.poll(Duration.ZERO));
        assertNull(in.tryRead());
        assertEquals(-1, in.lastType());
        out.write(0xfedc, bytes("array"), SHORT);
        byte[] array = bytes("..........");
        refused(ESMS_EXEED, () -> in.read(array, 1, 4, SHORT));
        assertEquals(5, in.read(array, 1, 9, SHORT));
        assertEquals(".array....", text(array, 10));
        assertEquals(0xfedc, in.lastType());
        for (ByteBuffer buffer : new ByteBuffer[] {
                ByteBuffer.allocate(10), ByteBuffer.allocateDirect(10)}) {
            buffer.position(4);
            send("buffer");
            assertEquals(6, in.read(buffer, SHORT));
            assertEquals(10, buffer.position());
            assertEquals('b', buffer.get(4));
            send("x");
            refused(ESMS_EXEED, () -> in.read(buffer, SHORT));
            receive("x");
        }
    }

    @Test public void readsIntoTheCallersMemoryAllocateNothing() throws Exception {
        com.sun.management.ThreadMXBean memory = (com.sun.management.ThreadMXBean)
                java.lang.management.ManagementFactory.getThreadMXBean();
        long thread = Thread.currentThread().getId();
        byte[] array = new byte[LONGEST];
        ByteBuffer buffer = ByteBuffer.allocateDirect(LONGEST);
        long least = Long.MAX_VALUE;
        for (int round = 0; round < 5; round++) {
            long before = memory.getThreadAllocatedBytes(thread);
            for (int i = 0; i < 1000; i++) {
                IPCFunctions.write(number, 1, array, 0, 8, -1);
                in.read(array, 0, LONGEST, SHORT);
                IPCFunctions.write(number, 1, array, 0, 8, -1);
                buffer.clear();
                in.read(buffer, SHORT);
            }
            least = Math.min(least, memory.getThreadAllocatedBytes(thread) - before);
        }
        assertTrue(least + " bytes for 2000 messages", least < 1000);
    }

    // ---- Threads

    @Test public void threadsTakeTurnsWithinTheirTime() throws Exception {
        InThread first = InThread.call(() -> receive("x"));
        await(number, RWAIT, 1);
        refused(ESMS_TIMEOUT, () -> in.read(SHORT));
        send("x");
        first.result();
    }

    @Test public void aReadCallsTheWriterAndAMarkEndsTheAnnouncementOfReaders() throws Exception {
        send("read", "marked");
        putIntAt(number, WWAIT, 1);
        receive("read");
        assertEquals(1, takePosts(KEY + ".req", number));
        putIntAt(number, RWAIT, 1);
        in.mark(1, SHORT).close();
        assertEquals(0, intAt(number, RWAIT));
    }

    @Test public void theMonitorKeepsTheClockGoing() throws Exception {
        TimeoutMonitor.stop();
        putIntAt(SEGMENT, NOW, 5);
        TimeoutMonitor.start();
        TimeoutMonitor.start();
        for (int i = 0; intAt(SEGMENT, NOW) == 5; i++) {
            assertTrue(i < 1000);
            Thread.sleep(10);
        }
        Thread.currentThread().interrupt();
        TimeoutMonitor.stop();
        assertTrue("an interrupt of the caller is not lost", Thread.interrupted());
        putIntAt(SEGMENT, NOW, 5);
        Thread.sleep(250);
        assertEquals("no second one is left", 5, intAt(SEGMENT, NOW));
        TimeoutMonitor.stop();
    }
}
