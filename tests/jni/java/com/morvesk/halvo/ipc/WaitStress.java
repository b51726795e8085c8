package com.morvesk.halvo.ipc;

import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.function.ThrowingRunnable;

/**
 * Blocking round trips between two threads, then waits of 0 to 3 ms beside a writer, all against a
 * monitor in a tight loop: WaitStress COUNT SEED. Prints calls that took too long, "trip" or "wait",
 * start, end, limit in microseconds; and "waits:", how many timed out, were given a message, and
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

    private static Thread start(ThrowingRunnable work) {
        Thread thread = new Thread(() -> {
            try {
                work.run();
            } catch (Throwable failure) {
                failure.printStackTrace();
                System.exit(2);
            }
        });
        thread.setDaemon(true);
        thread.start();
        return thread;
    }

    private static void expect(int wanted, int result) {
        if (wanted != result) {
            throw new AssertionError(result + " instead of " + wanted);
        }
    }

    private static void judge(String what, long start, long allowedMillis) {
        long end = System.nanoTime();
        long limit = allowedMillis * 1000 + GRACE;
        if (end - start > limit * 1000) {
            System.out.println(what + " " + start / 1000 + " " + end / 1000 + " " + limit);
        }
    }

    private static void roundTrips(int count) throws Exception {
        Thread echo = start(() -> {
            byte[] body = new byte[64];
            for (int i = 0; i < count; i++) {
                expect(1, IPCFunctions.read(THERE, body, 0, 64, TIMEOUT, false));
                expect(0, IPCFunctions.write(BACK, 1, body, 0, 1, TIMEOUT));
            }
        });
        byte[] body = new byte[64];
        for (int i = 0; i < count; i++) {
            long start = System.nanoTime();
            expect(0, IPCFunctions.write(THERE, 1, X, 0, 1, TIMEOUT));
            expect(1, IPCFunctions.read(BACK, body, 0, 64, TIMEOUT, false));
            judge("trip", start, 0);
        }
        echo.join();
    }

    /** When each channel's messages were complete. */
    private static final class Sent {
        private final long[] complete = new long[64];
        private long count;

        synchronized void add() {
            complete[(int) (count++ % complete.length)] = System.nanoTime();
        }

        /** Whether message n was there before a call began. */
        synchronized boolean before(long n, long start) {
            return count > n && complete[(int) (n % complete.length)] - start < 0;
        }
    }

    private static void wait(int channel, int count, Random random, Sent sent) {
        byte[] body = new byte[64];
        long next = 0;
        for (int i = 0; i < count; i++) {
            int timeout = random.nextInt(4);
            long start = System.nanoTime();
            int result = IPCFunctions.read(channel, body, 0, 64, timeout, false);
            judge("wait", start, timeout);
            if (result == IPCFunctions.ESMS_TIMEOUT) {
                TIMED_OUT.incrementAndGet();
                if (sent.before(next, start)) {
                    BESIDE.incrementAndGet();
                }
            } else {
                expect(1, result);
                next++;
                GIVEN.incrementAndGet();
            }
        }
    }

    private static void waits(int count, long seed) throws Exception {
        Sent[] sent = new Sent[WAITERS];
        List<Thread> waiters = new ArrayList<>();
        for (int i = 0; i < WAITERS; i++) {
            Sent own = sent[i] = new Sent();
            int channel = FIRST_WAITER + i;
            Random random = new Random(seed + i);
            waiters.add(start(() -> wait(channel, count / WAITERS, random, own)));
        }
        start(() -> {
            Random random = new Random(seed - 1);
            while (true) {
                TimeUnit.MICROSECONDS.sleep(random.nextInt(1000));
                int to = random.nextInt(WAITERS);
                if (IPCFunctions.write(FIRST_WAITER + to, 1, X, 0, 1, -1) == 0) {
                    sent[to].add();
                }
            }
        });
        for (Thread waiter : waiters) {
            waiter.join();
        }
    }

    public static void main(String[] args) throws Exception {
        int count = Integer.parseInt(args[0]);
        expect(0, IPCFunctions.initialize(System.getProperty("halvo.test.key")));
        for (int channel = 0; channel < FIRST_WAITER + WAITERS; channel++) {
            expect(0, IPCFunctions.openChannel("stress", channel, false, 1000));
            expect(0, IPCFunctions.openChannel("stress", channel, true, 1000));
        }
        start(() -> {
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
