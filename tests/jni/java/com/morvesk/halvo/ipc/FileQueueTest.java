package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.*;

import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.junit.Before;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** The file queue by its natives and by its class. */
public class FileQueueTest {
    private static final int NONE = -1;
    private File directory;
    private String queue;
    private FileQueue files;
    private final byte[] buf = bytes(".........");

    @Before
    public void makeDirectory() throws IOException {
        attach();
        directory = Files.createTempDirectory(
                Paths.get(System.getProperty("halvo.test.dir")), "fq").toFile();
        queue = new File(directory, "mo").getPath();
        files = new FileQueue(queue);
    }

    private int put(int channel, String item, boolean error) {
        return writeFileQueue(channel, queue, 9, bytes(item), 0, item.length(), error);
    }

    private int put(String item) {
        return put(NONE, item, false);
    }

    private long begin(String path, String item) {
        return writeFileQueueBuf(NONE, path, 1, bytes(item), 0, item.length(), false);
    }

    /** Reads and consumes items one by one until there is none; joined. */
    private String take() {
        List<String> items = new ArrayList<>();
        byte[] buffer = new byte[500];
        for (long handle; (handle = readFileQueue(NONE, queue, buffer, 0, 500)) != 0;) {
            items.add(text(buffer, readFileQueueBytes(handle)));
            assertEquals(0, readFileQueueCommit(NONE, handle, 0));
        }
        return String.join(" ", items);
    }

    // ---- The natives

    @Test public void aWriteTransactionIsReadableAtItsCommit() {
        long handle = begin(queue, "one");
        assertTrue(handle > 0);
        assertEquals(3 + 22, writeFileQueueBufNext(NONE, handle, 1, bytes("two"), 0, 3, false));
        assertEquals("", take());
        assertEquals(0, writeFileQueueBufCommit(NONE, handle));
        assertEquals("one two", take());
        all(0, writeFileQueueBufRollback(NONE, begin(queue, "no")), put("yes"),
                writeFileQueue(NONE, queue, 1, bytes("<part>"), 1, 4, false));
        assertEquals("yes part", take());
    }

    @Test public void aReadTransactionConsumesAtItsCommit() {
        all(0, put("one"), put("three"));
        for (int i = 0; i < 2; i++) { // the second time after the rollback
            long handle = readFileQueue(NONE, queue, buf, 1, 8);
            assertTrue(handle > 0);
            assertEquals(".one", text(buf, 4));
            assertEquals(3, readFileQueueBytes(handle));
            assertEquals(1, readFileQueueNext(NONE, queue, handle, buf, 1, 8));
            assertEquals(".three...", text(buf, 9));
            assertEquals(5, readFileQueueBytes(handle));
            all(0, readFileQueueNext(NONE, queue, handle, buf, 1, 8), i == 0
                    ? readFileQueueRollback(NONE, handle) : readFileQueueCommit(NONE, handle, 0));
        }
        assertEquals("", take());
    }

    @Test public void anItemThatDoesNotFitStays() {
        String item = new String(new char[500]).replace('\0', 'i');
        all(0, put(item), readFileQueue(NONE, queue, new byte[500], 0, 200));
        assertEquals(item, take());
    }

    @Test public void badArgumentsTouchNoFile() {
        all(-2, writeFileQueue(NONE, null, 1, buf, 0, 8, false), begin(null, "x"),
                readFileQueue(NONE, null, buf, 0, 8), readFileQueueNext(NONE, null, 0, buf, 0, 8));
        for (int[] range : new int[][] {{2, 8}, {-1, 4}, {0, -1}, {Integer.MAX_VALUE, 8}}) {
            assertEquals(0, readFileQueue(NONE, queue, buf, range[0], range[1]));
        }
        all(ESMS_INVAL, writeFileQueue(NONE, queue, 1, buf, 0, -1, false), put(""));
        assertEquals(0, directory.list().length);
        for (long handle : new long[] {0, -1, Long.MIN_VALUE}) {
            all(ESMS_INVAL, writeFileQueueBufNext(NONE, handle, 1, buf, 0, 8, false),
                    writeFileQueueBufCommit(NONE, handle), writeFileQueueBufRollback(NONE, handle));
            all(-1, readFileQueueBytes(handle), readFileQueueCommit(NONE, handle, 0),
                    readFileQueueRollback(NONE, handle));
            assertEquals(0, readFileQueueNext(NONE, queue, handle, buf, 0, 8));
        }
    }

    @Test public void aBadRangeToWriteRaisesAndWritesZerosOrLeavesNoLock() throws Exception {
        raises(ArrayIndexOutOfBoundsException.class,
                () -> writeFileQueue(NONE, queue, 1, new byte[3], 2, 2, false),
                () -> writeFileQueueBuf(NONE, queue, 1, new byte[3], 2, 2, false));
        assertEquals(0, InThread.call(() -> put("next")).result());
        assertEquals("\0\0 next", take());
    }

    @Test public void theChannelCountsWhatPasses() throws Exception {
        int channel = fresh('F');
        all(0, put(channel, "one", false), put(channel, "two", true), put(channel, "six", false));
        all(3, longAt(channel, FPCNT), pcountFor(channel, 9), getCount(channel));
        assertEquals(1, longAt(channel, TCNT + 9 * RECORD + ECOUNT));
        long handle = readFileQueue(channel, queue, buf, 0, 8);
        assertEquals(0, readFileQueueCommit(channel, handle, 5));
        assertEquals(1, longAt(channel, FGCNT));
        assertEquals("errors of a read go to the get counter", 5,
                LiveStat.getLong(channel, LiveStat.IID_GETL_ECOUNT));
        put(999, "any number of a channel", false);
        assertEquals(2, getCount(channel));
        try (FileQueue.Reader reader = new FileQueue(queue, channel).reader()) {
            assertArrayEquals(bytes("two"), reader.next());
            reader.commit(4);
        }
        assertEquals(9, LiveStat.getLong(channel, LiveStat.IID_GETL_ECOUNT));
    }

    // ---- The class

    private static void next(FileQueue.Reader reader, String... items) throws Exception {
        for (String item : items) {
            byte[] next = reader.next();
            assertEquals(item, next == null ? null : text(next, next.length));
        }
    }

    @Test public void theClassCommitsOrLeavesThingsAsTheyWere() throws Exception {
        for (boolean durable : new boolean[] {false, true}) { // how it shows is shown elsewhere
            FileQueue.setDurable(durable);
            try (FileQueue.Writer writer = files.writer()) {
                writer.commit();
                writer.put(bytes("dropped"));
            }
            files.put(1, bytes("one"));
            try (FileQueue.Writer writer = files.writer()) {
                writer.put(bytes("two"));
                writer.put(bytes("three"));
                writer.commit();
            }
            try (FileQueue.Reader reader = files.reader(10)) {
                next(reader, "one", "two", "three", null);
            }
            try (FileQueue.Reader reader = files.reader(10)) {
                next(reader, "one", "two", "three", null);
                reader.commit();
                next(reader, (String) null);
                reader.commit();
            }
        }
        FileQueue.setDurable(false);
    }

    @Test public void aTransactionKnowsItsState() throws Exception {
        FileQueue.Writer writer = files.writer();
        writer.put(bytes("one"));
        refused(ESMS_INVAL, () -> writer.put(new byte[0]));
        raises(IllegalStateException.class, () -> files.put(1, bytes("for itself")),
                () -> files.writer().put(bytes("likewise")));
        new FileQueue(queue + 2).put(1, bytes("another queue"));
        InThread.call(() -> { // it has the transaction now
            writer.put(bytes("two"));
            raises(IllegalStateException.class, () -> files.put(1, bytes("itself")));
            writer.commit();
        }).result();
        writer.put(bytes("dropped"));
        writer.rollback();
        writer.close();
        raises(IllegalStateException.class, () -> writer.put(bytes("late")), writer::commit);
        files.put(1, bytes("three")); // the side is free

        FileQueue.Reader reader = files.reader(1);
        next(reader, "one");
        raises(IllegalStateException.class, () -> files.reader().next());
        next(reader, "two");
        reader.commit();
        next(reader, "three");
        reader.rollback();
        next(reader, "three");
        reader.close();
        raises(IllegalStateException.class, reader::next, reader::commit);
        assertEquals("three", take());
    }

    private static void failed(String code, ThrowingRunnable... calls) {
        for (ThrowingRunnable call : calls) {
            HalvoException failure = assertThrows(HalvoException.class, call);
            assertEquals(failure.getMessage(), code, failure.codeName());
            assertTrue(failure.getMessage(), failure.getMessage().contains(code));
            assertFalse(failure.isTimeout());
        }
    }

    @Test public void aQueueThatCannotBeLockedIsAFailure() {
        queue = directory + "/missing/mo";
        assertEquals(1, put("x"));
        assertTrue(begin(queue, "x") < 0);
        assertEquals(0, readFileQueue(NONE, queue, buf, 0, 8));
        FileQueue missing = new FileQueue(queue);
        failed("FQ_LOCK_FILE", () -> missing.put(1, bytes("x")),
                () -> missing.writer().put(bytes("x")), () -> missing.reader().next());
        failed("ESMS_INVAL", () -> new FileQueue(new String(new char[5000])).reader().next());
    }

    @Test public void theReaderTellsWhyThereIsNothing() throws Exception {
        byte[] large = new byte[300_000];
        Arrays.fill(large, (byte) 'l');
        try (FileQueue.Reader reader = files.reader(10)) {
            next(reader, (String) null);
            files.put(1, bytes("small"));
            files.put(1, large);
            files.put(1, bytes("after it"));
            next(reader, "small", text(large, large.length), "after it", null);
            reader.commit();
        }
        // The header of an item that says that it has 770 MB.
        Files.write(Paths.get(queue + "2.000000000"), bytes("QITMF-----------0000data"));
        next(new FileQueue(queue + 2).reader(), (String) null);
        Files.write(Paths.get(queue + ".head"), bytes("no position at all, not anywhere"));
        String damage = assertThrows(HalvoException.class, () -> files.reader().next()).codeName();
        assertTrue(damage, damage.startsWith("FQ_"));
    }

    @Test public void aPollWaitsForTheNextItem() throws Exception {
        try (FileQueue.Reader reader = files.reader()) {
            long start = System.nanoTime();
            assertNull(reader.poll(Duration.ofMillis(100)));
            assertTrue(System.nanoTime() - start >= 100_000_000L);
            InThread.call(() -> put("late"));
            assertArrayEquals(bytes("late"), reader.poll(Duration.ofSeconds(30)));
            reader.commit();
            Thread.currentThread().interrupt();
            raises(InterruptedException.class, () -> reader.poll(Duration.ofSeconds(30)));
        }
    }

    @Test public void aCommitThatCannotBeKeptThrows() throws Exception {
        files.put(1, bytes("one"));
        try (FileQueue.Reader reader = files.reader(); FileQueue.Writer writer = files.writer()) {
            next(reader, "one");
            writer.put(bytes("two"));
            for (File file : directory.listFiles()) {
                assertTrue(file.delete());
            }
            assertTrue(directory.delete());
            failed("FQ_FAILED", writer::commit);
        }
    }
}
