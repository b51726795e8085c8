package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.time.Duration;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.After;
import org.junit.Assume;
import org.junit.Before;
import org.junit.Test;

/** Waits of the companion classes that other threads and signals end, or do not. */
public class WaitsTest {
    private static final Duration LONG = Duration.ofSeconds(30);
    private static final Duration SHORT = Duration.ofMillis(200);
    private static final byte[] X = {'x'};
    private Channel in;
    private Channel out;

    @Before
    public void open() throws Exception {
        attach();
        Channel.attach(System.getProperty("halvo.test.key"));
        String name = LiveStat.getString(fresh('M'), LiveStat.IID_GETS_QNAME, 0);
        in = Channel.openReader("test", name, SHORT);
        out = Channel.openWriter("test", name, SHORT);
    }

    @After
    public void close() throws Exception {
        in.close();
        out.close();
        TimeoutMonitor.stop();
    }

    /** A call in a thread; what it threw is its result. */
    private static final class Call extends Thread {
        private final Callable<?> call;
        volatile long pthread;
        volatile Object result;

        Call(Callable<?> call) {
            this.call = call;
            setDaemon(true);
            start();
        }

        @Override
        public void run() {
            pthread = TestNatives.thisThread();
            try {
                result = String.valueOf(call.call());
            } catch (Throwable e) {
                result = e;
            }
        }

        Object result() throws Exception {
            join(20000);
            return result;
        }
    }

    private void fill() throws Exception {
        while (out.tryWrite(1, X)) {
            continue;
        }
    }

    private Call reading() throws Exception {
        Call call = new Call(() -> in.read(LONG).body().length);
        await(in.number(), RWAIT, 1);
        return call;
    }

    private Call writing() throws Exception {
        fill();
        Call call = new Call(() -> {
            out.write(1, X, LONG);
            return "written";
        });
        await(out.number(), WWAIT, 1);
        return call;
    }

    /** A loaded machine may be late now and then; the fastest of five is not. */
    private static void endsAtOnce(Callable<?> wait) throws Exception {
        long fastest = Long.MAX_VALUE;
        for (int i = 0; i < 5; i++) {
            Call call = new Call(wait);
            Thread.sleep(30);
            long start = System.nanoTime();
            call.interrupt();
            Object result = call.result();
            fastest = Math.min(fastest, System.nanoTime() - start);
            assertEquals(InterruptedException.class, result.getClass());
        }
        assertTrue(fastest + " ns", fastest < 100_000_000L);
    }

    @Test
    public void anInterruptEndsEachWait() throws Exception {
        String name = in.name();
        endsAtOnce(() -> in.read(LONG));
        endsAtOnce(() -> in.mark(9, LONG));
        endsAtOnce(() -> in.read(new byte[9], 0, 9, LONG));
        endsAtOnce(() -> Channel.openReader("second", name, LONG));
        endsAtOnce(() -> Channel.openWriter("second", name, LONG));
        Call holder = reading();
        endsAtOnce(() -> in.read(LONG)); // that waits for its turn
        holder.interrupt();
        holder.result();
        fill();
        endsAtOnce(() -> {
            out.write(1, X, LONG);
            return 0;
        });
        Batch batch = out.batch();
        batch.write(1, X);
        endsAtOnce(() -> {
            batch.commit(LONG);
            return 0;
        });
        assertEquals("nothing was written", SLOTS, IPCFunctions.getCount(out.number()));
    }

    @Test
    public void aSignalEndsNoWait() throws Exception {
        Call reader = reading();
        for (int i = 0; i < 20; i++) {
            TestNatives.interrupt(reader.pthread);
            Thread.sleep(2);
        }
        assertEquals(null, reader.result);
        out.write(1, X, SHORT);
        assertEquals("1", reader.result());
        Call writer = writing();
        for (int i = 0; i < 20; i++) {
            TestNatives.interrupt(writer.pthread);
            Thread.sleep(2);
        }
        assertEquals(null, writer.result);
        in.read(SHORT);
        assertEquals("written", writer.result());
    }

    @Test
    public void timeIsKeptBesideSignals() throws Exception {
        Call reader = new Call(() -> in.poll(SHORT));
        long start = System.nanoTime();
        while (reader.isAlive()) {
            if (reader.pthread != 0) {
                TestNatives.interrupt(reader.pthread);
            }
            Thread.sleep(10);
            assertTrue(System.nanoTime() - start < 15_000_000_000L);
        }
        assertEquals("null", reader.result());
        assertTrue(System.nanoTime() - start >= 190_000_000L);
    }

    @Test
    public void aCloseEndsTheWaitsOfOthers() throws Exception {
        Call reader = reading();
        Call behind = new Call(() -> in.read(LONG));
        Thread.sleep(20);
        in.close();
        assertEquals(ChannelClosedException.class, reader.result().getClass());
        assertEquals(ChannelClosedException.class, behind.result().getClass());
        Call writer = writing();
        out.close();
        assertEquals(ChannelClosedException.class, writer.result().getClass());
    }

    /** Interrupts at any moment: each message comes once, in order, on both sides. */
    @Test
    public void interruptsNeitherLoseNorDouble() throws Exception {
        int count = 4000;
        AtomicBoolean done = new AtomicBoolean();
        Call writer = new Call(() -> {
            byte[] body = new byte[4];
            for (int i = 0; i < count; i++) {
                wrap(body).putInt(i);
                while (true) {
                    try {
                        out.write(1, body, LONG);
                        break;
                    } catch (InterruptedException e) {
                        continue; // nothing was written
                    }
                }
            }
            return "all";
        });
        Call reader = new Call(() -> {
            for (int i = 0; i < count;) {
                try {
                    Channel.Message message = in.read(LONG);
                    assertEquals(i++, wrap(message.body()).getInt());
                } catch (InterruptedException e) {
                    continue; // nothing was read
                }
                if (i % 64 == 0) {
                    Thread.yield();
                }
            }
            done.set(true);
            return "all";
        });
        Random random = new Random();
        for (int i = 0; !done.get() && reader.isAlive(); i++) {
            (i % 2 == 0 ? reader : writer).interrupt();
            TimeUnit.NANOSECONDS.sleep(random.nextInt(200_000));
        }
        assertEquals("all", reader.result());
        assertEquals("all", writer.result());
    }

    /** With one carrier, where whoever waits on it keeps all others from running. */
    @Test
    public void virtualThreadsDoNotHoldTheirCarrier() throws Exception {
        java.lang.reflect.Method start;
        try {
            start = Thread.class.getMethod("startVirtualThread", Runnable.class);
        } catch (NoSuchMethodException e) {
            Assume.assumeTrue("no virtual threads in this VM", false);
            return;
        }
        FutureTask<Integer> reader = new FutureTask<>(() -> in.read(LONG).body().length);
        FutureTask<Object> writer = new FutureTask<>(() -> {
            await(in.number(), RWAIT, 1);
            out.write(1, X, LONG);
            return 0;
        });
        start.invoke(null, reader);
        start.invoke(null, writer);
        assertEquals(1, (int) reader.get(20, TimeUnit.SECONDS));
        writer.get(20, TimeUnit.SECONDS);
        AtomicBoolean interrupted = new AtomicBoolean();
        Thread waiting = (Thread) start.invoke(null, (Runnable) () -> {
            try {
                in.read(LONG);
            } catch (InterruptedException e) {
                interrupted.set(true);
            } catch (HalvoException e) {
                throw new AssertionError(e);
            }
        });
        await(in.number(), RWAIT, 1);
        waiting.interrupt();
        waiting.join(20000);
        assertTrue("the interrupt ended the wait", interrupted.get());
    }
}
