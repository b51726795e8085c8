package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.ESMS_INVAL;
import static com.morvesk.halvo.ipc.IPCFunctions.ESMS_MTXLOCK;
import static com.morvesk.halvo.ipc.IPCFunctions.ESMS_NOINIT;
import static com.morvesk.halvo.ipc.IPCFunctions.ESMS_SHMOP;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;

import java.io.IOException;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/** A VM that is attached to nothing. Its last test leaves the library in a state of its own. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class UnattachedTest {
    private static void nothingIsThere() throws Exception {
        assertEquals(-1, IPCFunctions.channelByName("M00"));
        assertEquals(ESMS_INVAL, IPCFunctions.openChannel("test", 0, true, 0));
        assertEquals(ESMS_NOINIT, IPCFunctions.closeChannel(0, true));
        assertEquals(ESMS_INVAL, IPCFunctions.read(0, new byte[8], 0, 8, 0, false));
        assertEquals(ESMS_INVAL, IPCFunctions.write(0, 1, new byte[8], 0, 8, 0));
        assertEquals(ESMS_INVAL, IPCFunctions.getCount(0));
        assertEquals(ESMS_NOINIT, IPCFunctions.saveSnapshot("/tmp/never-made"));
        assertEquals(0, IPCFunctions.monitorTimeout());

        assertEquals(ESMS_NOINIT, LiveStat.setBytes(0, 0, 0, null, 0, 0));
        byte[] buffer = new byte[1];
        assertEquals(ESMS_NOINIT, LiveStat.getBytes(0, LiveStat.IID_GETB_QMAP, 0, buffer, 0, 1));
        assertEquals(4096, LiveStat.getInt(0, LiveStat.IID_GETI_TMAX, 0));
        LiveStatTest.refused("공유메모리 초기화 오류.",
                () -> LiveStat.getInt(0, LiveStat.IID_GETI_QCOUNT, 0));
        LiveStatTest.refused("공유메모리 초기화 오류.",
                () -> LiveStat.getLong(0, LiveStat.IID_GETL_ECOUNT));
        LiveStatTest.refused("공유메모리 초기화 실패.",
                () -> LiveStat.getInt(-1, LiveStat.IID_GETI_TRATIO, 1));
        LiveStatTest.refused("공유메모리 초기화 실패.",
                () -> LiveStat.getString(-1, LiveStat.IID_GETS_TNAME, 1));
        LiveStatTest.refused("공유메모리 초기화 실패.",
                () -> LiveStat.getString(-1, LiveStat.IID_GETS_QNAME, 0));
        LiveStatTest.refused("채널 획득 실패.",
                () -> LiveStat.setString(-1, LiveStat.IID_SETS_TNAME, 1, "x"));
        assertEquals("{\"smsqm\":[ qm0 is null",
                LiveStat.getString(0, LiveStat.IID_GETS_SMSQM, 0));
    }

    @Test
    public void a_beforeTheAttachNativesAnswerAndDoNothing() throws Exception {
        assertEquals(0, IPCFunctions.initialized());
        nothingIsThere();
        assertThrows(HalvoException.class,
                () -> Channel.openReader("test", "M00", java.time.Duration.ZERO));
    }

    @Test
    public void b_aNullKeyFileStartsNothing() {
        assertEquals(-1, IPCFunctions.initialize(null));
        assertEquals(0, IPCFunctions.initialized());
        assertThrows(NullPointerException.class, () -> Channel.attach(null));
    }

    @Test
    public void c_aFailedAttachIsNoAttachmentAndCannotBeRepeated() throws Exception {
        assertEquals(ESMS_SHMOP, IPCFunctions.initialize("/nonexistent/key"));
        assertEquals(1, IPCFunctions.initialized());
        assertEquals(ESMS_MTXLOCK, IPCFunctions.initialize(System.getProperty("halvo.test.key")));
        nothingIsThere();
        assertThrows(IOException.class, () -> Channel.attach("/nonexistent/key"));
    }
}
