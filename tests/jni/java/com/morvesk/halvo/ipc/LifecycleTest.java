package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.io.File;
import java.io.IOException;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.junit.Test;

/** Start, lookup, open and close; and arguments that no method expects. */
public class LifecycleTest {
    @Test public void nullStringsHaveTheirFixedNumbers() {
        int channel = both();
        all(-1, initialize(null));
        all(-8, channelByName(null), openChannel(null, channel, false, 0));
        all(-2, readCommitWithError(channel, 1, null), readCommitWithError(-1, 1, null),
                saveSnapshot(null));
        all(-1, channelByName("no such channel"), channelByName(""));
        assertEquals(ESMS_ALREADY, initialize(KEY));
        assertEquals(1, initialized());
    }

    @Test public void openingRecordsTheClientAndTheProcess() throws Exception {
        int channel = fresh('M');
        assertEquals(ESMS_ACCESS, write(channel, "x"));
        all(0, openChannel("a name of more than 23 bytes", channel, true, 0),
                openChannel("reader", channel, false, 0));
        byte[] header = new byte[132];
        assertEquals(0, LiveStat.getBytes(channel, LiveStat.IID_GETB_QSTAT, 0, header, 0, 132));
        assertEquals("a name of more than 23 \0", text(header, 76, 24));
        assertEquals("reader\0", text(header, 104, 7));
        all(ownProcess(), wrap(header).getInt(PIDP), wrap(header).getInt(PIDG));
        put(channel, "x");
        takes(channel, "x");
    }

    static int ownProcess() throws IOException {
        return Integer.parseInt(new File("/proc/self").getCanonicalFile().getName());
    }

    @Test public void aSnapshotFileIsCreatedEmpty() {
        attach();
        File file = new File(System.getProperty("halvo.test.dir"), "snapshot");
        assertFalse(file.exists());
        assertTrue(saveSnapshot(file.getPath()) >= 0);
        assertTrue(file.exists());
        assertEquals(0, file.length());
        assertEquals(-1, saveSnapshot(file.getPath() + "/below/a/file"));
    }

    // ---- All natives of a channel

    private static List<Method> nativesOfAChannel(Class<?> type, String names) {
        List<Method> natives = new ArrayList<>();
        for (Method method : type.getDeclaredMethods()) {
            if (Modifier.isNative(method.getModifiers())
                    && Arrays.asList(method.getParameterTypes()).contains(int.class)
                    && method.getName().matches(names)) {
                natives.add(method);
            }
        }
        return natives;
    }

    private static Object plain(Class<?> type) {
        if (type == int.class || type == long.class) {
            return 1;
        }
        return type == byte[].class ? new byte[16]
                : type == boolean.class ? (Object) false : "text";
    }

    /** Calls a native with a channel, its first number, and plain arguments; null if it raised. */
    private static Object call(Method method, int channel) throws Exception {
        List<Class<?>> types = Arrays.asList(method.getParameterTypes());
        Object[] arguments = types.stream().map(LifecycleTest::plain).toArray();
        arguments[types.indexOf(int.class)] = channel;
        try {
            return method.invoke(null, arguments);
        } catch (InvocationTargetException e) {
            assertTrue(e.getCause().toString(), e.getCause() instanceof IOException);
            return null;
        }
    }

    @Test public void anyChannelNumberLeavesTheVmAlive() throws Exception {
        attach();
        List<Method> natives = nativesOfAChannel(IPCFunctions.class, "(?!.*FileQueue).*");
        assertEquals(36, natives.size());
        for (int channel : new int[] {-1, CHANNELS, 999, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            for (Method method : natives) {
                Number answer = (Number) call(method, channel);
                assertEquals(method.getName(), ESMS_INVAL, answer.intValue());
            }
            for (Method method : nativesOfAChannel(LiveStat.class, ".*")) {
                call(method, channel);
            }
        }
    }

    @Test public void everyMethodOfAnEndIsForItsHolderAlone() throws Exception {
        int channel = fresh('M');
        List<Method> owned =
                nativesOfAChannel(IPCFunctions.class, "(read|write|view)(?!FileQueue).*");
        assertEquals(21, owned.size());
        for (Method method : owned) {
            assertEquals(method.getName(), ESMS_ACCESS, call(method, channel));
        }
        assertEquals(-1, touch(channel, -1, true));
        putIntAt(channel, PIDP, 1); // another process holds it: the same
        assertEquals(ESMS_ACCESS, write(channel, "x"));
        assertEquals("nothing was written", 0, stat(channel, 1));
    }

    // ---- Arrays

    @Test public void aNullArrayIsInvalid() throws Exception {
        int channel = both();
        all(ESMS_INVAL, read(channel, null, 0, 1, 0, false),
                readBuf(channel, null, 0, 1, 0, false, 0),
                readMarked(channel, 0, null, 0, 1, false), view(channel, null, 0, 1, 0),
                IPCFunctions.write(channel, 1, null, 0, 1, 0),
                writeBuf(channel, 1, null, 0, 1, 0, 0), writeMark(channel, 1, null, 0, 1, 0),
                writeMarkAt(channel, 1, null, 0, 1, 0),
                writeFileQueue(-1, "/nowhere/q", 1, null, 0, 1, false),
                writeFileQueueBuf(-1, "/nowhere/q", 1, null, 0, 1, false));
        all(0, readFileQueue(-1, "/nowhere/q", null, 0, 1), pcount(channel));
    }
}
