package com.morvesk.halvo.ipc;

import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Blocking round trips between two threads, then waits of 0 to 3 ms beside a writer, all against a
 * monitor in a tight loop: WaitStress WHERE COUNT SEED. Prints figures; status 1 when one is wrong.
 */
public final class WaitStress {
    private static final int THERE = 0;
    private static final int BACK = 1;
    private static final int FIRST_WAITER = 2;
    private static final int WAITERS = 4;
    private static final int TIMEOUT = 20000;
    private static final long GRACE = TimeUnit.MILLISECONDS.toNanos(300);
    private static final byte[] X = {'x'};

    private static volatile boolean stop;
    private static final AtomicLong LATE = new AtomicLong();
    private static final AtomicLong BESIDE = new AtomicLong();
    private static final AtomicLong GIVEN = new AtomicLong();
    private static final AtomicLong TIMED_OUT = new AtomicLong();

    /** Periods in which the VM or the machine let nobody run, which no wait can help. */
    private static final class Pauses extends Thread {
        private final List<long[]> seen = new ArrayList<>();

        @Override
        public void run() {
            while (!stop) {
                long start = System.nanoTime();
                try {
                    Thread.sleep(1);
                } catch (InterruptedException e) {
                    return;
                }
                long end = System.nanoTime();
                if (end - start > 5_000_000) {
                    synchronized (seen) {
                        seen.add(new long[] {start, end});
                    }
                }
            }
        }

        long without(long start, long end) throws InterruptedException {
            Thread.sleep(5); // a pause is known when it is over
            long left = end - start;
            synchronized (seen) {
                for (long[] pause : seen) {
                    left -= Math.max(0, Math.min(end, pause[1]) - Math.max(start, pause[0]));
                }
            }
            return left;
        }
    }

    private static final Pauses PAUSES = new Pauses();

    private WaitStress() {}

    private interface Work {
        void run() throws Exception;
    }

    private static Thread start(Work work) {
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

    private static void judge(long start, long allowed) throws InterruptedException {
        long end = System.nanoTime();
        long limit = allowed + GRACE;
        if (end - start > limit && PAUSES.without(start, end) > limit) {
            LATE.incrementAndGet();
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
            judge(start, 0);
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

    private static void wait(int channel, int count, Random random, Sent sent) throws Exception {
        byte[] body = new byte[64];
        long next = 0;
        for (int i = 0; i < count; i++) {
            int timeout = random.nextInt(4);
            long start = System.nanoTime();
            int result = IPCFunctions.read(channel, body, 0, 64, timeout, false);
            judge(start, TimeUnit.MILLISECONDS.toNanos(timeout));
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
            sent[i] = new Sent();
            Sent own = sent[i];
            int channel = FIRST_WAITER + i;
            Random random = new Random(seed + i);
            waiters.add(start(() -> wait(channel, count / WAITERS, random, own)));
        }
        start(() -> {
            Random random = new Random(seed - 1);
            while (!stop) {
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

    private static void figure(String what, String asked, Object measured) {
        System.out.println("figure | " + what + " | " + asked + " | " + measured);
    }

    /**
     * Runs both parts.
     *
     * @param args where, for the figures; round trips, and as many waits; a seed
     */
    public static void main(String[] args) throws Exception {
        int count = Integer.parseInt(args[1]);
        expect(0, IPCFunctions.initialize(System.getProperty("halvo.test.key")));
        for (int channel = 0; channel < FIRST_WAITER + WAITERS; channel++) {
            expect(0, IPCFunctions.openChannel("stress", channel, false, 1000));
            expect(0, IPCFunctions.openChannel("stress", channel, true, 1000));
        }
        PAUSES.start();
        start(() -> {
            while (!stop) {
                IPCFunctions.monitorTimeout();
            }
        });
        roundTrips(count);
        long late = LATE.get();
        figure("blocking round trips " + args[0], "-", count);
        figure("of them longer than 300 ms", "0", late);
        waits(count, Long.parseLong(args[2]));
        stop = true;
        figure("waits of 0 to 3 ms " + args[0] + ", timed out / given a message", "-",
                TIMED_OUT + " / " + GIVEN);
        figure("of them longer than their deadline + 300 ms", "0", LATE.get() - late);
        figure("calls that timed out beside a message", "0", BESIDE);
        boolean right = LATE.get() == 0 && BESIDE.get() == 0 && GIVEN.get() > 0 && TIMED_OUT.get() > 0;
        System.exit(right ? 0 : 1);
    }
}
