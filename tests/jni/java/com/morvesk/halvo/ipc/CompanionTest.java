package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** Channel and TimeoutMonitor. */
public class CompanionTest {
    private static final Duration SHORT = Duration.ofMillis(100);
    private static final Duration LONG = Duration.ofSeconds(30);
    private String name;

    @Before
    public void attach() throws Exception {
        name = LiveStat.getString(fresh('M'), LiveStat.IID_GETS_QNAME, 0);
        Channel.attach(System.getProperty("halvo.test.key"));
    }

    @After
    public void stop() {
        TimeoutMonitor.stop();
    }

    private static void refused(int code, ThrowingRunnable call) {
        HalvoException refusal = assertThrows(HalvoException.class, call);
        assertEquals(refusal.getMessage(), code, refusal.code());
        assertEquals(code == IPCFunctions.ESMS_TIMEOUT, refusal.isTimeout());
        assertEquals(HalvoException.nameOf(code), refusal.codeName());
    }

    @Test
    public void messagesKeepTypeAndBytes() throws Exception {
        try (Channel out = Channel.openWriter("test", name, SHORT);
                Channel in = Channel.openReader("test", name, SHORT)) {
            assertEquals(LONGEST, out.longestMessage());
            out.write(0xfedc, bytes("body"), SHORT);
            assertTrue(out.tryWrite(1, new byte[LONGEST]));
            Channel.Message message = in.read(SHORT);
            assertEquals(0xfedc, message.type());
            assertArrayEquals(bytes("body"), message.body());
            assertEquals(LONGEST, in.read(Duration.ofDays(100000)).body().length);
        }
    }

    @Test
    public void failuresCarryTheirCode() throws Exception {
        refused(IPCFunctions.ESMS_INVAL, () -> Channel.openReader("test", "no channel", SHORT));
        try (Channel out = Channel.openWriter("test", name, SHORT)) {
            refused(IPCFunctions.ESMS_ACCESS, () -> Channel.openWriter("test", name, SHORT));
            refused(IPCFunctions.ESMS_EXEED, () -> out.write(1, new byte[LONGEST + 1], SHORT));
            refused(IPCFunctions.ESMS_INVAL, () -> out.tryWrite(1, new byte[0]));
            for (int i = 0; i < SLOTS; i++) {
                assertTrue(out.tryWrite(1, bytes("x")));
            }
            assertFalse(out.tryWrite(1, bytes("x")));
            refused(IPCFunctions.ESMS_TIMEOUT, () -> out.write(1, bytes("x"), SHORT));
        }
        try (Channel in = Channel.openReader("test", name, SHORT)) {
            for (int i = 0; i < SLOTS; i++) {
                in.read(SHORT);
            }
            refused(IPCFunctions.ESMS_TIMEOUT, () -> in.read(Duration.ofMillis(-5)));
        }
    }

    private static void tells(String text, ThrowingRunnable call) {
        String message = assertThrows(HalvoException.class, call).getMessage();
        assertTrue(message, message.contains(text));
    }

    @Test
    public void failuresTellWhoAndHowMuch() throws Exception {
        try (Channel out = Channel.openWriter("billing", name, SHORT)) {
            String pid = new java.io.File("/proc/self").getCanonicalFile().getName();
            tells("held by process " + pid + " (billing)",
                    () -> Channel.openWriter("test", name, SHORT));
            tells("49 bytes, at most 48", () -> out.write(1, new byte[LONGEST + 1], SHORT));
            for (int type : new int[] {-1, 65536, 70000}) {
                assertThrows(IllegalArgumentException.class,
                        () -> out.write(type, bytes("x"), SHORT));
                assertThrows(IllegalArgumentException.class, () -> out.tryWrite(type, bytes("x")));
                assertThrows(IllegalArgumentException.class,
                        () -> out.batch().write(type, bytes("x")));
            }
            assertThrows(IndexOutOfBoundsException.class,
                    () -> out.write(1, new byte[4], 3, 2, SHORT));
            assertEquals(0, IPCFunctions.pcount(out.number()));
            putIntAt(out.number(), PIDP, 1);
            tells("held by process 1 (billing)", () -> out.write(1, bytes("x"), SHORT));
        }
    }

    @Test
    public void anEndWorksInItsDirectionAlone() throws Exception {
        try (Channel out = Channel.openWriter("test", name, SHORT);
                Channel in = Channel.openReader("test", name, SHORT)) {
            for (ThrowingRunnable wrong : new ThrowingRunnable[] {() -> out.read(SHORT),
                    () -> out.poll(SHORT), out::tryRead, () -> out.mark(1, SHORT),
                    () -> out.read(new byte[9], 0, 9, SHORT), () -> out.forEach(m -> { }, SHORT),
                    () -> in.write(1, bytes("x"), SHORT), () -> in.tryWrite(1, bytes("x")),
                    in::batch}) {
                assertThrows(IllegalStateException.class, wrong);
            }
        }
    }

    /** Another process's number in the header makes the recovery of an end fail. */
    @Test
    public void anEndThatCannotBeRecoveredIsGivenBack() throws Exception {
        int channel = IPCFunctions.channelByName(name);
        AtomicBoolean stop = new AtomicBoolean();
        Thread thief = new Thread(() -> {
            while (!stop.get()) {
                putIntAt(channel, PIDP, 1);
            }
        });
        thief.start();
        int failures = 0;
        for (int i = 0; i < 3000 && failures < 3; i++) {
            try {
                Channel.openWriter("test", name, LONG).close();
            } catch (HalvoException e) {
                assertTrue(e.getMessage(), e.getMessage().startsWith("recover "));
                failures++;
            }
        }
        stop.set(true);
        thief.join();
        Channel.openWriter("test", name, SHORT).close();
    }

    @Test
    public void aBatchIsWrittenAsAWhole() throws Exception {
        try (Channel out = Channel.openWriter("test", name, SHORT);
                Channel in = Channel.openReader("test", name, SHORT)) {
            try (Batch dropped = out.batch()) {
                dropped.write(1, bytes("dropped"));
            }
            Batch batch = out.batch();
            batch.commit(); // nothing
            assertNull(in.tryRead());
            batch.write(1, bytes("one"));
            batch.write(2, bytes("<two>"), 1, 3);
            batch.write(0xfedc, new byte[LONGEST]);
            refused(IPCFunctions.ESMS_EXEED, () -> batch.write(1, new byte[LONGEST + 1]));
            refused(IPCFunctions.ESMS_INVAL, () -> batch.write(1, new byte[0]));
            assertNull(in.tryRead());
            out.write(9, bytes("first"), SHORT);
            out.write(9, bytes("second"), SHORT);
            refused(IPCFunctions.ESMS_FULL, batch::commit);
            refused(IPCFunctions.ESMS_TIMEOUT, () -> batch.commit(SHORT));
            assertEquals(3, batch.size());
            FutureTask<Void> commit = new FutureTask<>(() -> {
                batch.commit(LONG);
                return null;
            });
            new Thread(commit).start();
            assertArrayEquals(bytes("first"), in.read(LONG).body());
            commit.get(10, TimeUnit.SECONDS);
            assertEquals(0, batch.size());
            assertArrayEquals(bytes("second"), in.read(SHORT).body());
            assertArrayEquals(bytes("one"), in.read(SHORT).body());
            assertArrayEquals(bytes("two"), in.read(SHORT).body());
            assertEquals(0xfedc, in.read(SHORT).type());
            for (int i = 0; i < SLOTS; i++) {
                batch.write(1, bytes("x"));
            }
            refused(IPCFunctions.ESMS_FULL, () -> batch.write(1, bytes("more than there are slots")));
            batch.close();
            assertThrows(IllegalStateException.class, () -> batch.write(1, bytes("x")));
        }
    }

    private static String all(Marked messages) {
        StringBuilder all = new StringBuilder();
        for (Channel.Message message : messages) {
            all.append(text(message.body(), message.body().length)).append(message.type());
        }
        return all.toString();
    }

    @Test
    public void markedMessagesAreReleasedByTheirCommit() throws Exception {
        Channel in = Channel.openReader("test", name, SHORT);
        try (Channel out = Channel.openWriter("test", name, SHORT)) {
            try (Marked none = in.mark(9, SHORT)) {
                assertEquals(0, none.size());
                none.commit();
            }
            for (String body : new String[] {"a", "b", "c", "d"}) {
                out.write(1, bytes(body), SHORT);
            }
            try (Marked left = in.mark(3, SHORT)) {
                assertEquals("a1b1c1", all(left));
            }
            Marked marked = in.mark(99, SHORT);
            assertEquals("a1b1c1d1", all(marked));
            marked.commit(1);
            assertThrows(IllegalArgumentException.class, () -> marked.commit(4));
            assertThrows(IllegalStateException.class, () -> in.read(SHORT));
            assertThrows(IllegalStateException.class, in::tryRead);
            marked.commitWithErrors(2);
            assertEquals(2, LiveStat.getLong(in.number(), LiveStat.IID_GETL_ECOUNT));
            FutureTask<Channel.Message> other = new FutureTask<>(() -> in.read(LONG));
            new Thread(other).start();
            assertThrows(TimeoutException.class, () -> other.get(50, TimeUnit.MILLISECONDS));
            assertEquals("d1", all(marked));
            marked.close();
            assertThrows(IllegalStateException.class, marked::commit);
            assertArrayEquals(bytes("d"), other.get(10, TimeUnit.SECONDS).body());

            out.write(1, bytes("again"), SHORT);
            Marked lost = in.mark(1, SHORT);
            in.close();
            assertThrows(IllegalStateException.class, lost::commit);
            lost.close();
        }
        try (Channel next = Channel.openReader("test", name, SHORT)) {
            assertArrayEquals(bytes("again"), next.read(SHORT).body());
        }
    }

    @Test
    public void aListenerCommitsWhatItHandled() throws Exception {
        try (Channel out = Channel.openWriter("test", name, SHORT);
                Channel in = Channel.openReader("test", name, SHORT)) {
            for (String body : new String[] {"a", "b", "c"}) {
                out.write(1, bytes(body), SHORT);
            }
            StringBuilder seen = new StringBuilder();
            assertThrows(java.io.EOFException.class, () -> in.forEach(message -> {
                seen.append((char) message.body()[0]);
                if (seen.length() == 2) {
                    throw new java.io.EOFException();
                }
            }, SHORT));
            assertEquals(2, in.<RuntimeException>forEach(
                    message -> seen.append((char) message.body()[0]), SHORT));
            assertEquals("abbc", seen.toString());
        }
    }

    @Test
    public void messagesComeIntoTheCallersMemory() throws Exception {
        try (Channel out = Channel.openWriter("test", name, SHORT);
                Channel in = Channel.openReader("test", name, SHORT)) {
            assertNull(in.poll(Duration.ZERO));
            assertNull(in.tryRead());
            assertEquals(-1, in.lastType());
            out.write(5, bytes("array"), SHORT);
            byte[] array = bytes("..........");
            refused(IPCFunctions.ESMS_EXEED, () -> in.read(array, 1, 4, SHORT));
            assertEquals(5, in.read(array, 1, 9, SHORT));
            assertEquals(".array....", text(array, 10));
            assertEquals(5, in.lastType());
            for (ByteBuffer buffer : new ByteBuffer[] {
                    ByteBuffer.allocate(10), ByteBuffer.allocateDirect(10)}) {
                buffer.position(4);
                out.write(6, bytes("buffer"), SHORT);
                assertEquals(6, in.read(buffer, SHORT));
                assertEquals(10, buffer.position());
                assertEquals('b', buffer.get(4));
                out.write(6, bytes("x"), SHORT);
                refused(IPCFunctions.ESMS_EXEED, () -> in.read(buffer, SHORT));
                assertArrayEquals(bytes("x"), in.poll(SHORT).body());
            }
        }
    }

    @Test
    public void aClosedEndIsFreeAndUnusable() throws Exception {
        Channel first = Channel.openWriter("test", name, SHORT);
        first.close();
        first.close();
        assertThrows(IllegalStateException.class, () -> first.write(1, bytes("x"), SHORT));
        assertThrows(IllegalStateException.class, () -> first.tryWrite(1, bytes("x")));
        Channel.openWriter("test", name, SHORT).close();
    }

    @Test
    public void threadsTakeTurnsWithinTheirTime() throws Exception {
        try (Channel in = Channel.openReader("test", name, SHORT);
                Channel out = Channel.openWriter("test", name, SHORT)) {
            FutureTask<Channel.Message> first = new FutureTask<>(() -> in.read(LONG));
            new Thread(first).start();
            await(in.number(), RWAIT, 1);
            refused(IPCFunctions.ESMS_TIMEOUT, () -> in.read(SHORT));
            out.write(1, bytes("x"), SHORT);
            assertArrayEquals(bytes("x"), first.get(10, TimeUnit.SECONDS).body());
        }
    }

    @Test
    public void theMonitorKeepsTheClockGoing() throws Exception {
        TimeoutMonitor.stop();
        putIntAt(SEGMENT, NOW, 5);
        TimeoutMonitor.start();
        TimeoutMonitor.start();
        for (int i = 0; intAt(SEGMENT, NOW) == 5; i++) {
            assertTrue(i < 1000);
            Thread.sleep(10);
        }
        TimeoutMonitor.stop();
        TimeoutMonitor.stop();
    }
}
