package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;

import java.io.File;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import org.junit.Test;

/** Tens of thousands of messages to another process and back, through rings that are mostly full or
 * mostly empty, so that both sides block. */
public class ExchangeTest {
    private static final int MESSAGES = 20000;

    private static int lengthOf(int i) {
        return 5 + i % (LONGEST - 4);
    }

    private static byte[] message(int i) {
        byte[] body = new byte[lengthOf(i)];
        wrap(body).putInt(i);
        for (int at = 4; at < body.length; at++) {
            body[at] = (byte) (i * 31 + at);
        }
        return body;
    }

    private static void throughPeer(String outName, String backName) throws Exception {
        TimeoutMonitor.start();
        int out = open(named(outName), true);
        int back = open(named(backName), false);
        FutureTask<Void> writer = new FutureTask<>(() -> {
            for (int i = 0; i < MESSAGES; i++) {
                byte[] body = message(i);
                assertEquals(0, IPCFunctions.write(out, 1, body, 0, body.length, 30000));
            }
            return null;
        });
        new Thread(writer).start();
        byte[] body = new byte[SLOT_SIZE];
        for (int i = 0; i < MESSAGES; i++) {
            int length = IPCFunctions.read(back, body, 0, body.length, 30000, false);
            assertEquals("message " + i, lengthOf(i), length);
            assertEquals(text(message(i), length), text(body, length));
        }
        writer.get(30, TimeUnit.SECONDS);
        assertEquals(MESSAGES, gcount(out));
        assertEquals(MESSAGES, pcount(back));
    }

    @Test
    public void withAProcessInC() throws Exception {
        throughPeer("toC", "fromC"); // the program that started this VM has forked the peer
    }

    @Test
    public void withAnotherVm() throws Exception {
        Process peer = new ProcessBuilder(System.getProperty("java.home") + "/bin/java", "-Xmx32m",
                "-cp", System.getProperty("java.class.path"),
                "-Dhalvoipc.library=" + System.getProperty("halvoipc.library"),
                "-Dhalvo.test.key=" + System.getProperty("halvo.test.key"),
                EchoPeer.class.getName(), "toJava", "fromJava", Integer.toString(MESSAGES))
                .redirectErrorStream(true)
                .redirectOutput(new File(System.getProperty("halvo.test.dir"), "echo.log"))
                .start();
        try {
            throughPeer("toJava", "fromJava");
            assertEquals(0, peer.waitFor());
        } finally {
            peer.destroyForcibly();
        }
    }
}
