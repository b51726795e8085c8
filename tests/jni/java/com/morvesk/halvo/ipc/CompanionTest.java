package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.time.Duration;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
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
