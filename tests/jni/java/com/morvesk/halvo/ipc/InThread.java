package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertThrows;

import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/** A call in a thread of its own, which begins at once. */
final class InThread extends FutureTask<Object> {
    private final Thread thread;
    volatile long pthread; // 0 until the thread runs

    /** A call without a value. */
    interface Work {
        void run() throws Exception;
    }

    static InThread call(Callable<?> call) {
        return new InThread(call, false);
    }

    static InThread call(Work work) {
        return call(work, false);
    }

    static InThread call(Work work, boolean virtual) {
        return new InThread(() -> {
            work.run();
            return "done";
        }, virtual);
    }

    /** Starts a call and waits until the header of its channel announces that it waits. */
    static InThread waiting(int channel, int announcement, Callable<?> call) throws Exception {
        InThread waiting = call(call);
        TestSegment.await(channel, announcement, 1);
        return waiting;
    }

    private InThread(Callable<?> call, boolean virtual) {
        super(call::call);
        try {
            thread = virtual ? (Thread) Thread.class.getMethod("startVirtualThread", Runnable.class)
                    .invoke(null, this) : new Thread(this);
        } catch (ReflectiveOperationException e) {
            throw new AssertionError(e);
        }
        if (!virtual) {
            thread.setDaemon(true);
            thread.start();
        }
    }

    @Override
    public void run() {
        pthread = TestNatives.thisThread();
        super.run();
    }

    /** What it returned; "done" from a call without a value. */
    Object result() throws Exception {
        return get(30, TimeUnit.SECONDS);
    }

    Throwable failure() {
        return assertThrows(ExecutionException.class, this::result).getCause();
    }

    void stillWaits(int millis) {
        assertThrows(TimeoutException.class, () -> get(millis, TimeUnit.MILLISECONDS));
    }

    void interrupt() {
        thread.interrupt();
    }

    /** Sends it a signal that is not the library's. */
    void signal() {
        TestNatives.interrupt(pthread);
    }
}
