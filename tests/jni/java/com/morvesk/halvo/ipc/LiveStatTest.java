package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.LiveStat.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** Items of the segment. */
public class LiveStatTest {
    static final String NOT_ATTACHED = "공유메모리 초기화 오류.";
    static final String ATTACH_FAILED = "공유메모리 초기화 실패.";
    static final String NO_CHANNEL = "채널 획득 실패.";
    private static final String BAD_INDEX = "메시지 인덱스 오류";
    private static final String UNSUPPORTED = "지원되지 않는 인터페이스";
    private static final int LAST = 4096;
    private static final int SEGMENT_HEADER = 214112; // bytes
    private static final int SEGMENT_TYPES = 1092;
    private static final int TYPE_7 = TCNT + 7 * RECORD;
    private final int channel = fresh('M'); // each test has its own

    /** The calls raise with a text of the library, whose bytes the VM took for UTF-8. */
    static void raised(String text, ThrowingRunnable... calls) throws Exception {
        for (ThrowingRunnable call : calls) {
            IOException raised = assertThrows(IOException.class, call);
            assertEquals(vmString((text + "\0").getBytes("EUC-KR")),
                    raised.getMessage());
            assertEquals(IOException.class, raised.getClass());
        }
    }

    @Test public void numbersOfTheLayoutAndOfAType() throws Exception {
        assertEquals(CHANNELS, getInt(0, IID_GETI_QCOUNT, 0));
        assertEquals(SEGMENT_HEADER, getInt(0, IID_GETI_QMAPSZ, 0));
        assertEquals(214712, getInt(0, IID_GETI_QSTATSZ, 0));
        assertEquals(RECORD, getInt(0, IID_GETI_COUNTERSZ, 0));
        assertEquals(LAST, getInt(0, IID_GETI_TMAX, 0));
        all(11, setInt(channel, IID_SETI_TRATIO, 7, 11), intAt(channel, TYPE_7 + RATIO),
                getInt(channel, IID_GETI_TRATIO, 7));
        all(-12, setInt(channel, IID_SETI_TSTART, 7, -12), intAt(channel, TYPE_7 + START),
                getInt(channel, IID_GETI_TSTART, 7));
        all(13, setInt(channel, IID_SETI_TINTERVAL, 7, 13), intAt(channel, TYPE_7 + INTERVAL),
                getInt(channel, IID_GETI_TINTERVAL, 7));
    }

    @Test public void intervalsOfTheSegmentAreStoredAndReadAsZero() throws Exception {
        all(30, setInt(-1, IID_SETI_TINTERVAL, 5, 30),
                intAt(SEGMENT, SEGMENT_TYPES + 5 * RECORD + INTERVAL));
        assertEquals(0, getInt(-1, IID_GETI_TINTERVAL, 5));
        all(31, setInt(-1, IID_SETI_TSTART, 5, 31), getInt(-1, IID_GETI_TSTART, 5));
        all(32, setInt(-7, IID_SETI_TRATIO, 5, 32), getInt(-1, IID_GETI_TRATIO, 5));
    }

    @Test public void theIndexBehindTheTableStaysInTheHeader() throws Exception {
        setInt(channel, IID_SETI_TRATIO, LAST, 41); // the time of the first reader's client
        all(41, intAt(channel, READERS + CLIENT_TIME), getInt(channel, IID_GETI_TRATIO, LAST));
        setString(channel, IID_SETS_TNAME, LAST, "client");
        assertEquals("client", getString(channel, IID_GETS_TNAME, LAST));

        setInt(-1, IID_SETI_TRATIO, LAST, 42);
        assertEquals("the header's last word", 42, intAt(SEGMENT, SEGMENT_HEADER - 4));
        long before = longAt(SEGMENT, SEGMENT_HEADER);
        setString(-1, IID_SETS_TNAME, LAST, "must not reach the first channel");
        assertEquals(before, longAt(SEGMENT, SEGMENT_HEADER));
        assertEquals("", getString(-1, IID_GETS_TNAME, LAST));
        setInt(-1, IID_SETI_TRATIO, LAST, 0);
    }

    @Test public void namesOfTypesKeep23Bytes() throws Exception {
        setString(channel, IID_SETS_TNAME, 7, "a name of thirty characters...");
        assertEquals("a name of thirty charac", getString(channel, IID_GETS_TNAME, 7));
        setString(channel, IID_SETS_TNAME, 7, "short");
        ByteBuffer field = memory(channel);
        field.position(TYPE_7 + NAME);
        byte[] name = new byte[24];
        field.slice().get(name);
        assertEquals("short" + new String(new char[19]), text(name, 24));
        Arrays.fill(name, (byte) 'n'); // as another program may have left it
        field.put(name);
        assertEquals(text(name, 24), getString(channel, IID_GETS_TNAME, 7));
        setString(channel, IID_SETS_TNAME, 7, null);
        assertEquals(text(name, 24), getString(channel, IID_GETS_TNAME, 7));
    }

    @Test public void forStringsChannelZeroIsNoChannel() throws Exception {
        setString(0, IID_SETS_TNAME, 3, "segment");
        assertEquals("channel 0 has no name", 0, longAt(0, TCNT + 3 * RECORD + NAME));
        assertEquals("segment", getString(0, IID_GETS_TNAME, 3));
        assertEquals("segment", getString(-1, IID_GETS_TNAME, 3));
    }

    @Test public void namesOfChannelsAndHostAndTheStatusDocument() throws Exception {
        assertEquals(channel, channelByName(getString(channel, IID_GETS_QNAME, 0)));
        String host = Files.readAllLines(Paths.get("/proc/sys/kernel/hostname")).get(0);
        assertEquals(host, getString(-1, IID_GETS_UNAME, 0));
        String document = getString(0, IID_GETS_SMSQM, 0);
        String first = getString(0, IID_GETS_QNAME, 0) + "\",\"id\":0,";
        assertTrue(document, document.startsWith("{\"smsqm\":[{ \"name\":\"" + first));
        assertEquals(CHANNELS, document.split("\"name\":").length - 1);
    }

    @Test public void wrongIndexesChannelsAndItemsRaise() throws Exception {
        for (int index : new int[] {-1, 4097, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            raised(BAD_INDEX, () -> getInt(channel, IID_GETI_TRATIO, index),
                    () -> setInt(-1, IID_SETI_TSTART, index, 1),
                    () -> getString(channel, IID_GETS_TNAME, index),
                    () -> setString(channel, IID_SETS_TNAME, index, "x"));
        }
        raised(BAD_INDEX, () -> getInt(999, IID_GETI_TRATIO, -1));
        raised(NO_CHANNEL, () -> getInt(999, IID_GETI_TRATIO, 0),
                () -> setInt(CHANNELS, IID_SETI_TRATIO, 0, 1),
                () -> getString(999, IID_GETS_TNAME, 0),
                () -> setString(999, IID_SETS_TNAME, 0, "x"));
        raised("큐번호  오류", () -> getString(-1, IID_GETS_QNAME, 0));
        raised(NOT_ATTACHED, () -> getLong(999, IID_GETL_ECOUNT));
        raised(UNSUPPORTED, () -> getInt(0, 12345, 0), () -> getInt(0, IID_SETI_TRATIO, 0),
                () -> setInt(0, IID_GETI_TRATIO, 0, 1), () -> getLong(0, IID_GET_TYPE_COUNT),
                () -> getString(0, IID_SETS_TNAME, -1),
                () -> setString(0, IID_GETS_TNAME, 0, "x"));
    }

    @Test public void bytesAreTheSegmentsOwn() throws Exception {
        byte[] all = new byte[300000];
        assertEquals(0, getBytes(channel, IID_GETB_QSTAT, -1, all, 8, 32));
        assertEquals(SLOTS, wrap(all).getInt(8));
        assertEquals(getString(channel, IID_GETS_QNAME, 0), text(all, 16, 3));
        assertEquals("no more than asked for", 0, all[40]);

        Arrays.fill(all, (byte) 0xee);
        assertEquals(0, getBytes(0, IID_GETB_QMAP, 0, all, 0, all.length));
        assertEquals(CHANNELS, wrap(all).getInt(4));
        assertEquals("no more than the header", (byte) 0xee, all[SEGMENT_HEADER]);
        assertEquals(0, getBytes(channel, IID_GETB_QSTAT, 0, all, 0, all.length));
        assertEquals((byte) 0xee, all[214712]);

        setInt(channel, IID_SETI_TRATIO, 4095, 77);
        setInt(-1, IID_SETI_TRATIO, 4095, 78);
        Arrays.fill(all, (byte) 0xee);
        assertEquals(0, getBytes(channel, IID_GETB_COUNTER, 4095, all, 0, 60));
        assertEquals(77, wrap(all).getInt(RATIO));
        assertEquals((byte) 0xee, all[RECORD]);
        assertEquals(0, getBytes(-1, IID_GETB_COUNTER, 4095, all, 0, RECORD));
        assertEquals(78, wrap(all).getInt(RATIO));
    }

    @Test public void bytesAnswerWithCodes() {
        byte[] buffer = new byte[8];
        all(ESMS_INVAL, getBytes(channel, IID_GETB_COUNTER, 4096, buffer, 0, 8),
                getBytes(channel, IID_GETB_COUNTER, -1, buffer, 0, 8),
                getBytes(CHANNELS, IID_GETB_COUNTER, 0, buffer, 0, 8),
                getBytes(-1, IID_GETB_QSTAT, 0, buffer, 0, 4),
                getBytes(channel, IID_GETB_QMAP, 0, buffer, 1, 8),
                getBytes(channel, IID_GETB_QMAP, 0, buffer, 0, -1),
                getBytes(channel, IID_GETB_QMAP, 0, null, 0, 1));
        assertEquals(ESMS_FAILED, getBytes(channel, IID_GETI_TMAX, 0, buffer, 0, 8));
        assertEquals(0, setBytes(channel, IID_SETB_COUNTER, 0, buffer, 0, 8));
        setLong(channel, IID_GETL_ECOUNT, 0, 5);
        assertEquals(0, longAt(channel, GCNT + ECOUNT));
    }
}
