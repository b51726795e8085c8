package com.morvesk.halvo.ipc;

/**
 * The timeout monitor of the process: a daemon thread that calls
 * {@link IPCFunctions#monitorTimeout()} every 100 ms.
 *
 * <p>Without such calls no timeout of the process ever fires, and the clock of the segment stands
 * still unless another process keeps it going.
 */
public final class TimeoutMonitor {
    private static final long PERIOD_MILLIS = 100;
    private static Thread thread;

    private TimeoutMonitor() {}

    /** Starts the monitor if it does not run. Call it after {@link IPCFunctions#initialize}. */
    public static synchronized void start() {
        if (thread != null && thread.isAlive()) {
            return;
        }
        thread = new Thread(TimeoutMonitor::run, "halvo-timeout-monitor");
        thread.setDaemon(true);
        thread.start();
    }

    /** Stops the monitor and waits for its end. From then on no timeout fires. */
    public static synchronized void stop() {
        if (thread == null) {
            return;
        }
        thread.interrupt();
        boolean interrupted = false;
        while (thread.isAlive()) {
            try {
                thread.join();
            } catch (InterruptedException e) {
                interrupted = true;
            }
        }
        thread = null;
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private static void run() {
        try {
            while (true) {
                IPCFunctions.monitorTimeout();
                Thread.sleep(PERIOD_MILLIS);
            }
        } catch (InterruptedException e) {
            // stop() asks for the end
        }
    }
}
