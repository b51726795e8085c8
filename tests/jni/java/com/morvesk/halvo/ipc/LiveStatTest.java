package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.LiveStat.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** Items of the segment. */
public class LiveStatTest {
    private static final String BAD_INDEX = "메시지 인덱스 오류";
    private static final String NO_CHANNEL = "채널 획득 실패.";
    private static final String UNSUPPORTED = "지원되지 않는 인터페이스";
    private static final int LAST = 4096;

    /** The call raises with a text of the library, whose bytes the VM took for UTF-8. */
    static void refused(String text, ThrowingRunnable call) throws Exception {
        IOException raised = assertThrows(IOException.class, call);
        assertEquals(TestNatives.vmString((text + "\0").getBytes("EUC-KR")), raised.getMessage());
        assertEquals(IOException.class, raised.getClass());
    }

    @Test
    public void sizesAndNumbersOfTheLayout() throws Exception {
        attach();
        assertEquals(CHANNELS, getInt(0, IID_GETI_QCOUNT, 0));
        assertEquals(214112, getInt(0, IID_GETI_QMAPSZ, 0));
        assertEquals(214712, getInt(0, IID_GETI_QSTATSZ, 0));
        assertEquals(52, getInt(0, IID_GETI_COUNTERSZ, 0));
        assertEquals(4096, getInt(0, IID_GETI_TMAX, 0));
    }

    @Test
    public void numbersOfATypeOnAChannel() throws Exception {
        int channel = fresh('M');
        assertEquals(11, setInt(channel, IID_SETI_TRATIO, 7, 11));
        assertEquals(-12, setInt(channel, IID_SETI_TSTART, 7, -12));
        assertEquals(13, setInt(channel, IID_SETI_TINTERVAL, 7, 13));
        int record = TCNT + 7 * RECORD;
        assertEquals(13, intAt(channel, record + 16));
        assertEquals(-12, intAt(channel, record + 20));
        assertEquals(11, intAt(channel, record + 24));
        assertEquals(11, getInt(channel, IID_GETI_TRATIO, 7));
        assertEquals(-12, getInt(channel, IID_GETI_TSTART, 7));
        assertEquals(13, getInt(channel, IID_GETI_TINTERVAL, 7));
    }

    @Test
    public void intervalsOfTheSegmentAreStoredAndReadAsZero() throws Exception {
        attach();
        assertEquals(30, setInt(-1, IID_SETI_TINTERVAL, 5, 30));
        assertEquals(30, intAt(SEGMENT, 1092 + 5 * RECORD + 16));
        assertEquals(0, getInt(-1, IID_GETI_TINTERVAL, 5));
        setInt(-1, IID_SETI_TSTART, 5, 31);
        setInt(-7, IID_SETI_TRATIO, 5, 32);
        assertEquals(31, getInt(-1, IID_GETI_TSTART, 5));
        assertEquals(32, getInt(-1, IID_GETI_TRATIO, 5));
    }

    @Test
    public void theIndexBehindTheTableStaysInTheHeader() throws Exception {
        int channel = fresh('M');
        setInt(channel, IID_SETI_TRATIO, LAST, 41);
        assertEquals("the time of the first reader's client", 41,
                intAt(channel, 213512 + 24));
        assertEquals(41, getInt(channel, IID_GETI_TRATIO, LAST));
        setString(channel, IID_SETS_TNAME, LAST, "client");
        assertEquals("client", getString(channel, IID_GETS_TNAME, LAST));

        setInt(-1, IID_SETI_TRATIO, LAST, 42);
        assertEquals("the segment header's last word", 42,
                intAt(SEGMENT, 214112 - 4));
        byte[] behind = new byte[64];
        TestNatives.peek(SEGMENT, 214112, behind);
        byte[] before = behind.clone();
        setString(-1, IID_SETS_TNAME, LAST, "must not reach the first channel");
        TestNatives.peek(SEGMENT, 214112, behind);
        assertArrayEquals(before, behind);
        assertEquals("", getString(-1, IID_GETS_TNAME, LAST));
        setInt(-1, IID_SETI_TRATIO, LAST, 0);
    }

    @Test
    public void namesOfTypesKeep23Bytes() throws Exception {
        int channel = fresh('M');
        setString(channel, IID_SETS_TNAME, 7, "a name of thirty characters...");
        assertEquals("a name of thirty charac", getString(channel, IID_GETS_TNAME, 7));
        setString(channel, IID_SETS_TNAME, 7, "short");
        byte[] name = new byte[24];
        TestNatives.peek(channel, TCNT + 7 * RECORD + 28, name);
        assertArrayEquals(Arrays.copyOf(bytes("short"), 24), name);
        Arrays.fill(name, (byte) 'n'); // as another program may have left it
        TestNatives.poke(channel, TCNT + 7 * RECORD + 28, name);
        assertEquals("nnnnnnnnnnnnnnnnnnnnnnnn", getString(channel, IID_GETS_TNAME, 7));
        setString(channel, IID_SETS_TNAME, 7, null);
        assertEquals("nnnnnnnnnnnnnnnnnnnnnnnn", getString(channel, IID_GETS_TNAME, 7));
    }

    @Test
    public void forStringsChannelZeroIsNoChannel() throws Exception {
        attach();
        setString(0, IID_SETS_TNAME, 3, "segment");
        byte[] name = new byte[8];
        TestNatives.peek(0, TCNT + 3 * RECORD + 28, name);
        assertArrayEquals("channel 0 has no name", new byte[8], name);
        assertEquals("segment", getString(0, IID_GETS_TNAME, 3));
        assertEquals("segment", getString(-1, IID_GETS_TNAME, 3));
    }

    @Test
    public void otherStrings() throws Exception {
        int channel = fresh('M');
        assertEquals(channel, channelByName(getString(channel, IID_GETS_QNAME, 0)));
        String host = Files.readAllLines(Paths.get("/proc/sys/kernel/hostname")).get(0);
        assertEquals(host, getString(-1, IID_GETS_UNAME, 0));
    }

    @Test
    public void theStatusDocumentListsEveryChannel() throws Exception {
        int channel = fresh('M');
        String document = getString(0, IID_GETS_SMSQM, 0);
        assertTrue(document, document.startsWith("{\"smsqm\":[{ \"name\":\"" + channelZero()));
        assertTrue(document, document.endsWith(",\n\"uptime\":0}"));
        assertTrue(document, document.contains("\"id\":" + channel + ","));
        int channels = document.split("\"name\":").length - 1;
        assertEquals(CHANNELS, channels);
    }

    private static String channelZero() throws Exception {
        return getString(0, IID_GETS_QNAME, 0) + "\",\"id\":0,";
    }

    @Test
    public void wrongIndexesChannelsAndItemsRaise() throws Exception {
        int channel = fresh('M');
        for (int index : new int[] {-1, 4097, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            refused(BAD_INDEX, () -> getInt(channel, IID_GETI_TRATIO, index));
            refused(BAD_INDEX, () -> setInt(-1, IID_SETI_TSTART, index, 1));
            refused(BAD_INDEX, () -> getString(channel, IID_GETS_TNAME, index));
            refused(BAD_INDEX, () -> setString(channel, IID_SETS_TNAME, index, "x"));
        }
        refused(BAD_INDEX, () -> getInt(999, IID_GETI_TRATIO, -1));
        refused(NO_CHANNEL, () -> getInt(999, IID_GETI_TRATIO, 0));
        refused(NO_CHANNEL, () -> setInt(CHANNELS, IID_SETI_TRATIO, 0, 1));
        refused(NO_CHANNEL, () -> getString(999, IID_GETS_TNAME, 0));
        refused(NO_CHANNEL, () -> setString(999, IID_SETS_TNAME, 0, "x"));
        refused("큐번호  오류", () -> getString(-1, IID_GETS_QNAME, 0));
        refused("공유메모리 초기화 오류.", () -> getLong(999, IID_GETL_ECOUNT));
        refused(UNSUPPORTED, () -> getInt(0, 12345, 0));
        refused(UNSUPPORTED, () -> getInt(0, IID_SETI_TRATIO, 0));
        refused(UNSUPPORTED, () -> setInt(0, IID_GETI_TRATIO, 0, 1));
        refused(UNSUPPORTED, () -> getLong(0, IID_GET_TYPE_COUNT));
        refused(UNSUPPORTED, () -> getString(0, IID_SETS_TNAME, -1));
        refused(UNSUPPORTED, () -> setString(0, IID_GETS_TNAME, 0, "x"));
    }

    @Test
    public void bytesAreTheSegmentsOwn() throws Exception {
        int channel = fresh('M');
        byte[] name = new byte[40];
        assertEquals(0, getBytes(channel, IID_GETB_QSTAT, -1, name, 8, 32));
        assertEquals(SLOTS, wrap(name).getInt(8));
        assertEquals(getString(channel, IID_GETS_QNAME, 0), text(name, 19).substring(16));

        byte[] all = new byte[300000];
        Arrays.fill(all, (byte) 0xee);
        assertEquals(0, getBytes(0, IID_GETB_QMAP, 0, all, 0, all.length));
        assertEquals(CHANNELS, wrap(all).getInt(4));
        assertEquals("no more than the header", (byte) 0xee, all[214112]);
        assertEquals(0, getBytes(channel, IID_GETB_QSTAT, 0, all, 0, all.length));
        assertEquals((byte) 0xee, all[214712]);
        assertEquals(ESMS_INVAL, getBytes(-1, IID_GETB_QSTAT, 0, all, 0, 4));

        setInt(channel, IID_SETI_TRATIO, 4095, 77);
        setInt(-1, IID_SETI_TRATIO, 4095, 78);
        byte[] counter = new byte[60];
        counter[52] = 1;
        assertEquals(0, getBytes(channel, IID_GETB_COUNTER, 4095, counter, 0, 60));
        assertEquals(77, wrap(counter).getInt(24));
        assertEquals(1, counter[52]);
        assertEquals(0, getBytes(-1, IID_GETB_COUNTER, 4095, counter, 0, 52));
        assertEquals(78, wrap(counter).getInt(24));
    }

    @Test
    public void bytesAnswerWithCodes() {
        int channel = fresh('M');
        byte[] buffer = new byte[8];
        assertEquals(ESMS_INVAL, getBytes(channel, IID_GETB_COUNTER, 4096, buffer, 0, 8));
        assertEquals(ESMS_INVAL, getBytes(channel, IID_GETB_COUNTER, -1, buffer, 0, 8));
        assertEquals(ESMS_INVAL, getBytes(CHANNELS, IID_GETB_COUNTER, 0, buffer, 0, 8));
        assertEquals(ESMS_INVAL, getBytes(channel, IID_GETB_QMAP, 0, buffer, 1, 8));
        assertEquals(ESMS_INVAL, getBytes(channel, IID_GETB_QMAP, 0, buffer, 0, -1));
        assertEquals(ESMS_INVAL, getBytes(channel, IID_GETB_QMAP, 0, null, 0, 1));
        assertEquals(ESMS_FAILED, getBytes(channel, IID_GETI_TMAX, 0, buffer, 0, 8));
        assertEquals(0, setBytes(channel, IID_SETB_COUNTER, 0, buffer, 0, 8));
        setLong(channel, IID_GETL_ECOUNT, 0, 5);
        assertEquals(0, longAt(channel, GCNT + ECOUNT));
    }
}
