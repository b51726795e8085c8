package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/** Channel.attach, in a VM of its own: for a segment that comes late, then for another one. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class AttachTest {
    private static final String KEY = System.getProperty("halvo.test.key");

    private static void refused(int code, org.junit.function.ThrowingRunnable call) {
        HalvoException refusal = assertThrows(HalvoException.class, call);
        assertEquals(refusal.getMessage(), code, refusal.code());
    }

    @Test
    public void a_aSegmentCanBeWaitedFor() throws Exception {
        Path key = new File(KEY).toPath();
        Path away = new File(KEY + ".away").toPath();
        Files.move(key, away); // the same file: its segment goes with it
        refused(IPCFunctions.ESMS_SHMOP, () -> Channel.attach(KEY));
        refused(IPCFunctions.ESMS_TIMEOUT, () -> Channel.attach(KEY, Duration.ofMillis(60)));
        assertEquals("not tried", 0, IPCFunctions.initialized());
        FutureTask<Void> attach = new FutureTask<>(() -> {
            Channel.attach(KEY, Duration.ofSeconds(30));
            return null;
        });
        new Thread(attach).start();
        Thread.sleep(50);
        Files.move(away, key);
        attach.get(30, TimeUnit.SECONDS);
        assertTrue(IPCFunctions.channelByName("M00") >= 0);
    }

    @Test
    public void b_theSameSegmentIsFineAndAnotherIsNot() throws Exception {
        Channel.attach(KEY);
        Channel.attach(KEY, Duration.ZERO);
        Channel.attach(new File(KEY).getParent() + "/./" + new File(KEY).getName());
        String other = System.getProperty("halvo.test.other");
        refused(IPCFunctions.ESMS_ALREADY, () -> Channel.attach(other));
        refused(IPCFunctions.ESMS_ALREADY, () -> Channel.attach(other, Duration.ofSeconds(30)));
        refused(IPCFunctions.ESMS_ALREADY, () -> Channel.attach("/nonexistent/key"));
    }
}
