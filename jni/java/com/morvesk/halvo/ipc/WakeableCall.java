package com.morvesk.halvo.ipc;

import java.io.IOException;
import java.lang.reflect.Method;
import java.nio.ByteBuffer;
import java.nio.channels.spi.AbstractInterruptibleChannel;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * Waits in the library that an interrupt of the waiting thread, or {@link #wake}, ends. One at a time.
 *
 * <p>The VM tells of an interrupt by closing an interruptible channel: the gate. A virtual thread has
 * its waits made by a platform thread, so that it does not hold its carrier.
 */
final class WakeableCall {
    private static final Method IS_VIRTUAL = isVirtual();
    private final ByteBuffer cell = ByteBuffer.allocateDirect(8);
    private Gate gate = new Gate();

    /** A call that waits when it gets a cell. */
    interface Call {
        long run(ByteBuffer cell, int millis);
    }

    /** Platform threads for the waits of virtual ones. */
    private static final class Waiters {
        static final ExecutorService THREADS = Executors.newCachedThreadPool(task -> {
            Thread thread = new Thread(task, "halvo-wait");
            thread.setDaemon(true);
            return thread;
        });
    }

    private final class Gate extends AbstractInterruptibleChannel {
        void enter() {
            begin();
        }

        void leave() {
            try {
                end(true);
            } catch (IOException e) {
                // the thread's state tells of it too, and the caller looks at that
                assert Thread.currentThread().isInterrupted();
            }
        }

        @Override
        protected void implCloseChannel() {
            ChannelCalls.wake(cell);
        }
    }

    private static Method isVirtual() {
        try {
            return Thread.class.getMethod("isVirtual");
        } catch (NoSuchMethodException e) {
            return null; // a VM without virtual threads
        }
    }

    private static boolean inVirtualThread() {
        try {
            return IS_VIRTUAL != null && (Boolean) IS_VIRTUAL.invoke(Thread.currentThread());
        } catch (ReflectiveOperationException e) {
            return false;
        }
    }

    /** To be called before each wait, and before the reasons not to wait are looked at. */
    void prepare() {
        if (!gate.isOpen() || cell.getInt(0) != 0) {
            gate = new Gate();
            ChannelCalls.rearm(cell);
        }
    }

    /** Ends the wait that is going on or comes next. */
    void wake() {
        ChannelCalls.wake(cell);
    }

    long run(Call call, int millis) {
        if (inVirtualThread()) {
            return elsewhere(call, millis);
        }
        Gate entered = gate;
        entered.enter();
        try {
            return call.run(cell, millis);
        } finally {
            entered.leave();
        }
    }

    private long elsewhere(Call call, int millis) {
        Future<Long> wait = Waiters.THREADS.submit(() -> call.run(cell, millis));
        boolean interrupted = false;
        try {
            while (true) {
                try {
                    return wait.get();
                } catch (InterruptedException e) { // what it took meanwhile is not thrown away
                    interrupted = true;
                    wake();
                } catch (ExecutionException e) {
                    throw new IllegalStateException(e.getCause());
                }
            }
        } finally {
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }
    }
}
