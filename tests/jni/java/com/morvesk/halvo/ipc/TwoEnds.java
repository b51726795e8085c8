package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.time.Duration;
import org.junit.After;
import org.junit.Before;

/** Both ends of a channel of its own for each test. */
public abstract class TwoEnds {
    static final Duration SHORT = Duration.ofMillis(100);
    static final Duration LONG = Duration.ofSeconds(30);
    static final byte[] X = {'x'};
    Channel in;
    Channel out;
    String name;
    int number;

    @Before
    public void open() throws Exception {
        number = fresh('M');
        name = LiveStat.getString(number, LiveStat.IID_GETS_QNAME, 0);
        Channel.attach(KEY);
        in = Channel.openReader("test", name, SHORT);
        out = Channel.openWriter("billing", name, SHORT);
    }

    @After
    public void close() throws Exception {
        in.close();
        out.close();
        TimeoutMonitor.stop();
    }

    void send(String... bodies) throws Exception {
        for (String body : bodies) {
            out.write(1, bytes(body), SHORT);
        }
    }

    void receive(String... bodies) throws Exception {
        for (String body : bodies) {
            assertArrayEquals(bytes(body), in.read(LONG).body());
        }
    }
}
