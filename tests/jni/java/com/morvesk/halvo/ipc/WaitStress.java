package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertEquals;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Blocking round trips between two threads, then waits of 0 to 3 ms beside a writer, all against a
 * monitor in a tight loop: WaitStress COUNT SEED. Prints what took too long: "trip" or "wait",
 * start, end, limit in microseconds. Then "waits:", how many timed out, were given a message, and
 * timed out beside one.
 */
public final class WaitStress {
    private static final int THERE = 0;
    private static final int BACK = 1;
    private static final int FIRST_WAITER = 2;
    private static final int WAITERS = 4;
    private static final int TIMEOUT = 20000;
    private static final long GRACE = 300_000; // microseconds
    private static final byte[] X = {'x'};
    private static final AtomicLong BESIDE = new AtomicLong();
    private static final AtomicLong GIVEN = new AtomicLong();
    private static final AtomicLong TIMED_OUT = new AtomicLong();

    private WaitStress() {}

    private static void judge(String what, long start, long allowedMillis) {
        long end = System.nanoTime();
        long limit = allowedMillis * 1000 + GRACE;
        if (end - start > limit * 1000) {
            System.out.println(what + " " + start / 1000 + " " + end / 1000 + " " + limit);
        }
    }

    private static void roundTrips(int count) throws Exception {
        InThread echo = InThread.call(() -> {
            byte[] body = new byte[64];
            for (int i = 0; i < count; i++) {
                assertEquals(1, IPCFunctions.read(THERE, body, 0, 64, TIMEOUT, false));
                assertEquals(0, IPCFunctions.write(BACK, 1, body, 0, 1, TIMEOUT));
            }
        });
        byte[] body = new byte[64];
        for (int i = 0; i < count; i++) {
            long start = System.nanoTime();
            assertEquals(0, IPCFunctions.write(THERE, 1, X, 0, 1, TIMEOUT));
            assertEquals(1, IPCFunctions.read(BACK, body, 0, 64, TIMEOUT, false));
            judge("trip", start, 0);
        }
        echo.get();
    }

    /** Beside a list of when each message of the channel was complete. */
    private static void wait(int channel, int count, Random random, List<Long> complete) {
        byte[] body = new byte[64];
        int next = 0;
        for (int i = 0; i < count; i++) {
            int timeout = random.nextInt(4);
            long start = System.nanoTime();
            int result = IPCFunctions.read(channel, body, 0, 64, timeout, false);
            judge("wait", start, timeout);
            if (result == IPCFunctions.ESMS_TIMEOUT) {
                TIMED_OUT.incrementAndGet();
                if (complete.size() > next && complete.get(next) - start < 0) {
                    BESIDE.incrementAndGet();
                }
            } else {
                assertEquals(1, result);
                next++;
                GIVEN.incrementAndGet();
            }
        }
    }

    private static void waits(int count, long seed) throws Exception {
        List<List<Long>> complete = new ArrayList<>();
        List<InThread> waiters = new ArrayList<>();
        for (int i = 0; i < WAITERS; i++) {
            List<Long> own = Collections.synchronizedList(new ArrayList<>());
            complete.add(own);
            int channel = FIRST_WAITER + i;
            Random random = new Random(seed + i);
            waiters.add(InThread.call(() -> wait(channel, count / WAITERS, random, own)));
        }
        InThread.call(() -> {
            Random random = new Random(seed - 1);
            while (true) {
                TimeUnit.MICROSECONDS.sleep(random.nextInt(1000));
                int to = random.nextInt(WAITERS);
                if (IPCFunctions.write(FIRST_WAITER + to, 1, X, 0, 1, -1) == 0) {
                    complete.get(to).add(System.nanoTime());
                }
            }
        });
        for (InThread waiter : waiters) {
            waiter.get();
        }
    }

    public static void main(String[] args) throws Exception {
        int count = Integer.parseInt(args[0]);
        assertEquals(0, IPCFunctions.initialize(System.getProperty("halvo.test.key")));
        for (int channel = 0; channel < FIRST_WAITER + WAITERS; channel++) {
            assertEquals(0, IPCFunctions.openChannel("stress", channel, false, 1000));
            assertEquals(0, IPCFunctions.openChannel("stress", channel, true, 1000));
        }
        InThread.call(() -> {
            while (true) {
                IPCFunctions.monitorTimeout();
            }
        });
        roundTrips(count);
        waits(count, Long.parseLong(args[1]));
        System.out.println("waits: " + TIMED_OUT + " " + GIVEN + " " + BESIDE);
        System.exit(0);
    }
}
