package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.io.File;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/** Channel.attach, first in its VM: for a segment that comes late, then for another one. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class AttachTest {
    @Test public void a_aSegmentCanBeWaitedFor() throws Exception {
        Path key = new File(KEY).toPath();
        Path away = new File(KEY + ".away").toPath();
        Files.move(key, away); // the same file: its segment goes with it
        refused(IPCFunctions.ESMS_SHMOP, () -> Channel.attach(KEY),
                () -> Channel.attach(System.getProperty("halvo.test.unfinished")));
        refused(IPCFunctions.ESMS_TIMEOUT, () -> Channel.attach(KEY, Duration.ofMillis(60)));
        assertEquals("not tried", 0, IPCFunctions.initialized());
        InThread attach = InThread.call(() -> Channel.attach(KEY, Duration.ofSeconds(30)));
        Thread.sleep(50);
        Files.move(away, key);
        attach.result();
        assertTrue(IPCFunctions.channelByName("M00") >= 0);
    }

    @Test public void b_theSameSegmentIsFineAndAnotherIsNot() throws Exception {
        Channel.attach(KEY);
        Channel.attach(KEY, Duration.ZERO);
        Channel.attach(new File(KEY).getParent() + "/./" + new File(KEY).getName());
        String other = System.getProperty("halvo.test.other");
        refused(IPCFunctions.ESMS_ALREADY, () -> Channel.attach(other),
                () -> Channel.attach(other, Duration.ofSeconds(30)),
                () -> Channel.attach("/nonexistent/key"));
    }
}
