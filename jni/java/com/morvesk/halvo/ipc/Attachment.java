package com.morvesk.halvo.ipc;

import java.time.Duration;
import java.util.Objects;

/** The segment of this process. The native attaches once only, so it is asked when it will succeed. */
final class Attachment {
    private static final int PAUSE_MILLIS = 20;
    private static String attachedBy;

    private Attachment() {}

    static synchronized void attach(String keyFile) throws HalvoException {
        Objects.requireNonNull(keyFile, "keyFile");
        String operation = "attach to " + keyFile;
        int attached = ChannelCalls.attachedSegment();
        int wanted = ChannelCalls.segmentOf(keyFile);
        if (attached < 0) {
            HalvoException.check(operation, wanted);
            int result = IPCFunctions.initialize(keyFile);
            if (result != IPCFunctions.ESMS_ALREADY) {
                HalvoException.check(operation, result);
            }
            attachedBy = keyFile;
        } else if (wanted != attached && (wanted >= 0 || !keyFile.equals(attachedBy))) {
            throw new HalvoException(operation, IPCFunctions.ESMS_ALREADY,
                    "this process has another segment"
                            + (attachedBy == null ? "" : ", that of " + attachedBy));
        }
        TimeoutMonitor.start();
    }

    static void attach(String keyFile, Duration timeout)
            throws HalvoException, InterruptedException {
        long until = ChannelEnd.deadline(timeout);
        while (true) {
            try {
                attach(keyFile);
                return;
            } catch (HalvoException e) {
                if (e.code() != IPCFunctions.ESMS_SHMOP) {
                    throw e;
                }
                if (System.nanoTime() - until >= 0) {
                    throw new HalvoException(
                            "attach to " + keyFile, IPCFunctions.ESMS_TIMEOUT, "no such segment");
                }
            }
            Thread.sleep(PAUSE_MILLIS);
        }
    }
}
