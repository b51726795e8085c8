package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.TimeUnit;
import org.junit.Assume;
import org.junit.Test;

/** Waits that threads, processes and signals end, or do not; most of the companion classes. */
public class WaitsTest extends TwoEnds {
    private InThread reading() throws Exception {
        return InThread.waiting(number, RWAIT, () -> in.read(LONG).body().length);
    }

    private InThread writing() throws Exception {
        fill(number);
        InThread call = InThread.call(() -> out.write(1, X, LONG));
        await(number, WWAIT, 1);
        return call;
    }

    /** A loaded machine may be late now and then; the fastest of five is not. */
    private static void endsAtOnce(InThread.Work... waits) throws Exception {
        for (InThread.Work wait : waits) {
            long fastest = Long.MAX_VALUE;
            for (int i = 0; i < 5; i++) {
                InThread call = InThread.call(wait);
                Thread.sleep(10);
                long start = System.nanoTime();
                call.interrupt();
                Throwable failure = call.failure();
                fastest = Math.min(fastest, System.nanoTime() - start);
                assertEquals(InterruptedException.class, failure.getClass());
            }
            assertTrue(fastest + " ns", fastest < 100_000_000L);
        }
    }

    @Test public void anInterruptEndsEachWait() throws Exception {
        endsAtOnce(() -> in.read(LONG), () -> in.mark(9, LONG),
                () -> in.read(new byte[9], 0, 9, LONG),
                () -> Channel.openReader("second", name, LONG),
                () -> Channel.openWriter("second", name, LONG));
        InThread holder = reading();
        endsAtOnce(() -> in.read(LONG)); // that waits for its turn
        holder.interrupt();
        holder.failure();
        fill(number);
        Batch batch = out.batch();
        batch.write(1, X);
        endsAtOnce(() -> out.write(1, X, LONG), () -> batch.commit(LONG));
        assertEquals("nothing was written", SLOTS, IPCFunctions.getCount(number));
    }

    @Test public void aSignalEndsNoWaitAndMovesNoDeadline() throws Exception {
        long start = System.nanoTime();
        InThread reader = InThread.waiting(number, RWAIT, () -> in.poll(SHORT.multipliedBy(2)));
        while (!reader.isDone()) {
            reader.signal();
            Thread.sleep(10);
            assertTrue(System.nanoTime() - start < 15_000_000_000L);
        }
        assertNull(reader.result());
        assertTrue(System.nanoTime() - start >= 190_000_000L);
        InThread writer = writing();
        for (int i = 0; i < 20; i++) {
            writer.signal();
            Thread.sleep(2);
        }
        assertFalse(writer.isDone());
        in.read(SHORT);
        writer.result();
    }

    @Test public void aCloseEndsTheWaitsOfOthers() throws Exception {
        InThread reader = reading();
        InThread behind = InThread.call(() -> in.read(LONG));
        Thread.sleep(20);
        in.close();
        assertEquals(ChannelClosedException.class, reader.failure().getClass());
        assertEquals(ChannelClosedException.class, behind.failure().getClass());
        InThread writer = writing();
        out.close();
        assertEquals(ChannelClosedException.class, writer.failure().getClass());
    }

    /** A call that was interrupted has done nothing: it is made again until it is not. */
    private static <T> T untilDone(Callable<T> call) throws Exception {
        while (true) {
            try {
                return call.call();
            } catch (InterruptedException e) {
                continue;
            }
        }
    }

    /** Interrupts at any moment: each message comes once, in order, on both sides. */
    @Test public void interruptsNeitherLoseNorDouble() throws Exception {
        int count = 4000;
        InThread writer = InThread.call(() -> {
            for (int i = 0; i < count; i++) {
                byte[] body = wrap(new byte[4]).putInt(i).array();
                untilDone(() -> {
                    out.write(1, body, LONG);
                    return null;
                });
            }
        });
        InThread reader = InThread.call(() -> {
            for (int i = 0; i < count; i++) {
                assertEquals(i, wrap(untilDone(() -> in.read(LONG)).body()).getInt());
            }
        });
        Random random = new Random();
        for (int i = 0; !reader.isDone(); i++) {
            (i % 2 == 0 ? reader : writer).interrupt();
            TimeUnit.NANOSECONDS.sleep(random.nextInt(200_000));
        }
        reader.result();
        writer.result();
    }

    /** With one carrier, where whoever waits on it keeps all others from running. */
    @Test public void virtualThreadsDoNotHoldTheirCarrier() throws Exception {
        Assume.assumeTrue("no virtual threads in this VM",
                Double.parseDouble(System.getProperty("java.class.version")) >= 65); // of Java 21
        InThread reader = InThread.virtual(() -> receive("x"));
        InThread writer = InThread.virtual(() -> {
            await(number, RWAIT, 1);
            send("x");
        });
        reader.result();
        writer.result();
        InThread waiting = InThread.virtual(() -> receive("x"));
        await(number, RWAIT, 1);
        waiting.interrupt();
        assertEquals(InterruptedException.class, waiting.failure().getClass());
    }
}
