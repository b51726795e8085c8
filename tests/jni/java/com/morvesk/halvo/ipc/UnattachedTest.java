package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.LiveStatTest.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.regex.Pattern;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/** A VM that is attached to nothing. The test b_ leaves the library in a state of its own. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class UnattachedTest {
    private static void nothingIsThere() throws Exception {
        byte[] buffer = new byte[8];
        all(-1, channelByName("M00"));
        all(ESMS_INVAL, openChannel("test", 0, true, 0), read(0, buffer, 0, 8, 0, false),
                IPCFunctions.write(0, 1, buffer, 0, 8, 0), getCount(0));
        all(ESMS_NOINIT, closeChannel(0, true), saveSnapshot("/tmp/never-made"),
                LiveStat.setBytes(0, 0, 0, null, 0, 0),
                LiveStat.getBytes(0, LiveStat.IID_GETB_QMAP, 0, buffer, 0, 1));
        assertEquals(0, monitorTimeout());
        assertEquals(4096, LiveStat.getInt(0, LiveStat.IID_GETI_TMAX, 0));
        raised(NOT_ATTACHED, () -> LiveStat.getInt(0, LiveStat.IID_GETI_QCOUNT, 0),
                () -> LiveStat.getLong(0, LiveStat.IID_GETL_ECOUNT));
        raised(ATTACH_FAILED, () -> LiveStat.getInt(-1, LiveStat.IID_GETI_TRATIO, 1),
                () -> LiveStat.getString(-1, LiveStat.IID_GETS_TNAME, 1),
                () -> LiveStat.getString(-1, LiveStat.IID_GETS_QNAME, 0));
        raised(NO_CHANNEL, () -> LiveStat.setString(-1, LiveStat.IID_SETS_TNAME, 1, "x"));
        assertEquals("{\"smsqm\":[ qm0 is null",
                LiveStat.getString(0, LiveStat.IID_GETS_SMSQM, 0));
    }

    @Test public void a_beforeTheAttachNativesAnswerAndDoNothing() throws Exception {
        assertEquals(-1, initialize(null));
        assertEquals(0, initialized());
        nothingIsThere();
        refused(ESMS_INVAL, () -> Channel.openReader("test", "M00", Duration.ZERO));
        raises(NullPointerException.class, () -> Channel.attach(null));
    }

    @Test public void b_aFailedAttachIsNoAttachmentAndCannotBeRepeated() throws Exception {
        assertEquals(ESMS_SHMOP, initialize("/nonexistent/key"));
        assertEquals(1, initialized());
        assertEquals(ESMS_MTXLOCK, initialize(KEY));
        nothingIsThere();
        refused(ESMS_MTXLOCK, "an attach by the natives has failed before",
                () -> Channel.attach(KEY));
    }

    // ---- The classes and the library

    /** The headers for C list them as X(NAME, number, "meaning"). */
    private static void areListed(Class<?> type, String header, int count) throws Exception {
        String list = new String(Files.readAllBytes(
                Paths.get(System.getProperty("halvo.test.include"), header)));
        for (Field constant : type.getFields()) {
            assertTrue(constant.toString(), Pattern.compile("X\\(" + constant.getName() + ", +"
                    + constant.getInt(null) + ",").matcher(list).find());
        }
        assertEquals(count, type.getFields().length);
    }

    @Test public void constantsHaveTheValuesOfTheLibrary() throws Exception {
        areListed(LiveStat.class, "livestat.h", 26);
        areListed(IPCFunctions.class, "result.h", 18);
        for (Field code : IPCFunctions.class.getFields()) {
            assertEquals(code.getName(), HalvoException.nameOf(code.getInt(null)));
        }
        assertEquals("unknown code", HalvoException.nameOf(-18));
        assertEquals("unknown code", HalvoException.nameOf(1));
    }
}
