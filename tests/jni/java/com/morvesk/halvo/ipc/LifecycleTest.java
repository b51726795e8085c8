package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.io.IOException;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.HashSet;
import java.util.Set;
import org.junit.Test;

/** Start, lookup, open and close; and arguments that no method expects. */
public class LifecycleTest {
    @Test
    public void aSecondInitializeIsAlready() {
        attach();
        assertEquals(ESMS_ALREADY, initialize(System.getProperty("halvo.test.key")));
        assertEquals(1, initialized());
    }

    @Test
    public void nullStringsHaveTheirFixedNumbers() {
        int channel = reader();
        assertEquals(-1, initialize(null));
        assertEquals(-8, channelByName(null));
        assertEquals(-8, openChannel(null, channel, false, 0));
        assertEquals(-2, readCommitWithError(channel, 1, null));
        assertEquals(-2, readCommitWithError(-1, 1, null));
        assertEquals(-2, saveSnapshot(null));
    }

    @Test
    public void openingRecordsTheClientAndTheProcess() throws Exception {
        int channel = fresh('M');
        assertEquals(ESMS_ACCESS, write(channel, "x"));
        assertEquals(0, openChannel("a name of more than 23 bytes", channel, true, 0));
        assertEquals(0, openChannel("reader", channel, false, 0));
        byte[] header = new byte[132];
        assertEquals(0, LiveStat.getBytes(channel, LiveStat.IID_GETB_QSTAT, 0, header, 0, 132));
        assertEquals("a name of more than 23 \0",
                text(Arrays.copyOfRange(header, 76, 100), 24));
        assertEquals("reader\0", text(Arrays.copyOfRange(header, 104, 111), 7));
        int pid = Integer.parseInt(new File("/proc/self").getCanonicalFile().getName());
        assertEquals(pid, wrap(header).getInt(PIDP));
        assertEquals(pid, wrap(header).getInt(PIDG));
        assertEquals(0, write(channel, "x"));
        assertEquals("x", read(channel));
    }

    @Test
    public void anEndThatIsHeldIsRefusedUntilItIsClosed() {
        TimeoutMonitor.start();
        int channel = writer();
        assertEquals(ESMS_ACCESS, openChannel("second", channel, true, 50));
        assertEquals(0, closeChannel(channel, true));
        assertEquals(0, openChannel("second", channel, true, 50));
        TimeoutMonitor.stop();
    }

    @Test
    public void anUnknownNameIsMinusOne() {
        attach();
        assertEquals(-1, channelByName("no such channel"));
        assertEquals(-1, channelByName(""));
    }

    @Test
    public void aSnapshotFileIsCreatedEmpty() {
        attach();
        File file = new File(System.getProperty("halvo.test.dir"), "snapshot");
        assertFalse(file.exists());
        assertTrue(saveSnapshot(file.getPath()) >= 0);
        assertTrue(file.exists());
        assertEquals(0, file.length());
        assertEquals(-1, saveSnapshot(file.getPath() + "/below/a/file"));
    }

    private static Object plain(Class<?> type) {
        if (type == int.class) {
            return 1;
        }
        if (type == long.class) {
            return 0L;
        }
        if (type == boolean.class) {
            return false;
        }
        return type == byte[].class ? (Object) new byte[16] : "text";
    }

    /** Calls a native with a channel number and plain arguments; null when it raised. */
    private static Object call(Method method, int channel) throws Exception {
        Class<?>[] types = method.getParameterTypes();
        Object[] arguments = new Object[types.length];
        for (int i = 0; i < types.length; i++) {
            arguments[i] = plain(types[i]);
        }
        for (int i = 0; i < types.length && types[i] != long.class; i++) {
            if (types[i] == int.class) { // the first number of every method with a channel is that
                arguments[i] = channel;
                break;
            }
        }
        try {
            return method.invoke(null, arguments);
        } catch (InvocationTargetException e) {
            assertTrue(e.getCause().toString(), e.getCause() instanceof IOException);
            return null;
        }
    }

    @Test
    public void anyChannelNumberLeavesTheVmAlive() throws Exception {
        attach();
        Set<String> withoutChannel = new HashSet<>(Arrays.asList("initialize", "initialized",
                "monitorTimeout", "channelByName", "saveSnapshot", "readFileQueueBytes"));
        for (int channel : new int[] {-1, CHANNELS, 999, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            int refused = 0;
            for (Method method : IPCFunctions.class.getDeclaredMethods()) {
                String name = method.getName();
                if (!Modifier.isNative(method.getModifiers()) || withoutChannel.contains(name)
                        || name.contains("FileQueue")) {
                    continue;
                }
                assertEquals(name, ESMS_INVAL, ((Number) call(method, channel)).intValue());
                refused++;
            }
            assertEquals(36, refused);
            for (Method method : LiveStat.class.getDeclaredMethods()) {
                if (Modifier.isNative(method.getModifiers())) {
                    call(method, channel);
                }
            }
        }
    }

    @Test
    public void aNullArrayIsInvalid() throws Exception {
        int channel = both();
        assertEquals(ESMS_INVAL, read(channel, null, 0, 1, 0, false));
        assertEquals(ESMS_INVAL, readBuf(channel, null, 0, 1, 0, false, 0));
        assertEquals(ESMS_INVAL, readMarked(channel, 0, null, 0, 1, false));
        assertEquals(ESMS_INVAL, view(channel, null, 0, 1, 0));
        assertEquals(ESMS_INVAL, IPCFunctions.write(channel, 1, null, 0, 1, 0));
        assertEquals(ESMS_INVAL, writeBuf(channel, 1, null, 0, 1, 0, 0));
        assertEquals(ESMS_INVAL, writeMark(channel, 1, null, 0, 1, 0));
        assertEquals(ESMS_INVAL, writeMarkAt(channel, 1, null, 0, 1, 0));
        assertEquals(ESMS_INVAL, writeFileQueue(-1, "/nowhere/q", 1, null, 0, 1, false));
        assertEquals(ESMS_INVAL, writeFileQueueBuf(-1, "/nowhere/q", 1, null, 0, 1, false));
        assertEquals(0, readFileQueue(-1, "/nowhere/q", null, 0, 1));
        assertEquals(0, pcount(channel));
    }

    @Test
    public void aNegativeOrEnormousWriteLengthWritesNothing() throws Exception {
        int channel = writer();
        assertEquals(ESMS_INVAL, IPCFunctions.write(channel, 1, new byte[8], 0, -1, 0));
        assertEquals(ESMS_INVAL, IPCFunctions.write(channel, 1, new byte[8], 0, 0, 0));
        assertEquals(ESMS_EXEED, IPCFunctions.write(channel, 1, new byte[64], 0, LONGEST + 1, 0));
        try { // without the memory for it the VM is not even asked
            int result = IPCFunctions.write(channel, 1, new byte[8], 0, Integer.MAX_VALUE, 0);
            assertEquals(ESMS_FAILED, result);
        } catch (ArrayIndexOutOfBoundsException e) {
            assertNull(e.getCause());
        }
        assertEquals(0, pcount(channel));
    }

    @Test
    public void everyMethodOfAnEndIsForItsHolderAlone() throws Exception {
        int channel = fresh('M');
        Set<String> forAll = new HashSet<>(Arrays.asList("openChannel", "closeChannel", "stat",
                "statBuf", "isAlive", "touch", "sizeOfBlock", "countOfBlocks", "sizeOfData",
                "getCount", "gcount", "pcount", "pcountFor", "ratio", "resetPCountFor"));
        int owned = 0;
        for (Method method : IPCFunctions.class.getDeclaredMethods()) {
            Class<?>[] types = method.getParameterTypes();
            if (!Modifier.isNative(method.getModifiers()) || types.length == 0
                    || types[0] != int.class || forAll.contains(method.getName())
                    || method.getName().contains("FileQueue")) {
                continue;
            }
            assertEquals(method.getName(), ESMS_ACCESS, call(method, channel));
            owned++;
        }
        assertEquals(21, owned);
        assertEquals(-1, touch(channel, -1, true));
        // Another process holds it: the same.
        putIntAt(channel, PIDP, 1);
        assertEquals(ESMS_ACCESS, write(channel, "x"));
        assertEquals("nothing was written", 0, stat(channel, 1));
    }
}
