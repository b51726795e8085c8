package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertThrows;

import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/** A call in a thread of its own, which begins at once. */
final class InThread extends FutureTask<Object> {
    private Thread thread;
    volatile long pthread; // 0 until the thread runs

    /** A call without a value. */
    interface Work {
        void run() throws Exception;
    }

    private InThread(Callable<?> call) {
        super(call::call);
    }

    private static Callable<?> valued(Work work) {
        return () -> {
            work.run();
            return null;
        };
    }

    static InThread call(Callable<?> call) {
        InThread made = new InThread(call);
        made.thread = new Thread(made);
        made.thread.setDaemon(true);
        made.thread.start();
        return made;
    }

    static InThread call(Work work) {
        return call(valued(work));
    }

    static InThread virtual(Work work) throws ReflectiveOperationException {
        InThread made = new InThread(valued(work));
        made.thread = (Thread) Thread.class.getMethod("startVirtualThread", Runnable.class)
                .invoke(null, made);
        return made;
    }

    /** Starts a call and waits until the header of its channel announces that it waits. */
    static InThread waiting(int channel, int announcement, Callable<?> call) throws Exception {
        InThread waiting = call(call);
        TestSegment.await(channel, announcement, 1);
        return waiting;
    }

    @Override
    public void run() {
        pthread = TestSegment.thisThread();
        super.run();
    }

    /** What it returned; null from a call without a value. */
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
        TestSegment.interrupt(pthread);
    }
}
