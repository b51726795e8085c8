package com.morvesk.halvo.ipc;

import static com.morvesk.halvo.ipc.IPCFunctions.*;
import static com.morvesk.halvo.ipc.TestSegment.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.time.Duration;
import java.util.Arrays;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import org.junit.Before;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** The file queue by its natives and by its class. */
public class FileQueueTest {
    private static final int NONE = -1;
    private File directory;
    private String queue;

    @Before
    public void makeDirectory() throws IOException {
        attach();
        File parent = new File(System.getProperty("halvo.test.dir"));
        directory = Files.createTempDirectory(parent.toPath(), "fq").toFile();
        queue = new File(directory, "mo").getPath();
    }

    private static int put(int channel, String path, int type, String item, boolean error) {
        return writeFileQueue(channel, path, type, bytes(item), 0, item.length(), error);
    }

    /** Reads and consumes one item. */
    private String take() {
        byte[] buffer = new byte[100];
        long handle = readFileQueue(NONE, queue, buffer, 0, 100);
        if (handle == 0) {
            return null;
        }
        String item = text(buffer, readFileQueueBytes(handle));
        assertEquals(0, readFileQueueCommit(NONE, handle, 0));
        return item;
    }

    @Test
    public void singleItemsComeOutInOrder() {
        assertNull(take());
        assertEquals(0, put(NONE, queue, 1, "one", false));
        assertEquals(0, writeFileQueue(NONE, queue, 1, bytes("<two>"), 1, 3, false));
        assertEquals("one", take());
        assertEquals("two", take());
        assertNull(take());
    }

    @Test
    public void aWriteTransactionIsReadableAtItsCommit() {
        long handle = writeFileQueueBuf(NONE, queue, 1, bytes("one"), 0, 3, false);
        assertTrue(handle > 0);
        assertEquals(3 + 22, writeFileQueueBufNext(NONE, handle, 1, bytes("two"), 0, 3, false));
        assertNull(take());
        assertEquals(0, writeFileQueueBufCommit(NONE, handle));
        assertEquals("one", take());
        assertEquals("two", take());

        handle = writeFileQueueBuf(NONE, queue, 1, bytes("no"), 0, 2, false);
        assertEquals(0, writeFileQueueBufRollback(NONE, handle));
        put(NONE, queue, 1, "yes", false);
        assertEquals("yes", take());
    }

    @Test
    public void aReadTransactionConsumesAtItsCommit() {
        put(NONE, queue, 1, "one", false);
        put(NONE, queue, 1, "three", false);
        for (int i = 0; i < 2; i++) { // the second time after the rollback
            byte[] buffer = bytes(".........");
            long handle = readFileQueue(NONE, queue, buffer, 1, 8);
            assertTrue(handle > 0);
            assertEquals(".one.....", text(buffer, 9));
            assertEquals(3, readFileQueueBytes(handle));
            assertEquals(1, readFileQueueNext(NONE, queue, handle, buffer, 1, 8));
            assertEquals(".three...", text(buffer, 9));
            assertEquals(5, readFileQueueBytes(handle));
            assertEquals(0, readFileQueueNext(NONE, queue, handle, buffer, 1, 8));
            assertEquals(0, i == 0 ? readFileQueueRollback(NONE, handle)
                    : readFileQueueCommit(NONE, handle, 0));
        }
        assertNull(take());
    }

    @Test
    public void anItemThatDoesNotFitStays() {
        char[] item = new char[500];
        Arrays.fill(item, 'i');
        put(NONE, queue, 1, new String(item), false);
        byte[] buffer = new byte[500];
        assertEquals(0, readFileQueue(NONE, queue, buffer, 0, 200));
        long handle = readFileQueue(NONE, queue, buffer, 0, 500);
        assertEquals(500, readFileQueueBytes(handle));
        assertEquals(new String(item), text(buffer, 500));
        assertEquals(0, readFileQueueCommit(NONE, handle, 0));
    }

    @Test
    public void badArgumentsTouchNoFile() {
        byte[] buffer = new byte[8];
        assertEquals(-2, put(NONE, null, 1, "x", false));
        assertEquals(-2, writeFileQueueBuf(NONE, null, 1, buffer, 0, 8, false));
        assertEquals(-2, readFileQueue(NONE, null, buffer, 0, 8));
        assertEquals(-2, readFileQueueNext(NONE, null, 0, buffer, 0, 8));
        for (int[] range : new int[][] {{1, 8}, {-1, 4}, {0, -1}, {Integer.MAX_VALUE, 8}}) {
            assertEquals(0, readFileQueue(NONE, queue, buffer, range[0], range[1]));
        }
        assertEquals(ESMS_INVAL, writeFileQueue(NONE, queue, 1, buffer, 0, -1, false));
        assertEquals(ESMS_INVAL, writeFileQueue(NONE, queue, 1, buffer, 0, 0, false));
        assertEquals(0, directory.list().length);

        for (long handle : new long[] {0, -1, Long.MIN_VALUE}) {
            assertEquals(ESMS_INVAL, writeFileQueueBufNext(NONE, handle, 1, buffer, 0, 8, false));
            assertEquals(ESMS_INVAL, writeFileQueueBufCommit(NONE, handle));
            assertEquals(ESMS_INVAL, writeFileQueueBufRollback(NONE, handle));
            assertEquals(-1, readFileQueueBytes(handle));
            assertEquals(-1, readFileQueueCommit(NONE, handle, 0));
            assertEquals(-1, readFileQueueRollback(NONE, handle));
            assertEquals(0, readFileQueueNext(NONE, queue, handle, buffer, 0, 8));
        }
    }

    @Test
    public void aBadRangeToWriteRaisesAndWritesZeros() {
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> writeFileQueue(NONE, queue, 1, new byte[3], 2, 2, false));
        assertEquals("\0\0", take());
    }

    @Test
    public void aQueueThatCannotBeLockedIsAFailure() {
        String path = directory + "/missing/mo";
        assertTrue(put(NONE, path, 1, "x", false) > 0 || put(NONE, path, 1, "x", false) == -1);
        assertTrue(writeFileQueueBuf(NONE, path, 1, bytes("x"), 0, 1, false) < 0);
        assertEquals(0, readFileQueue(NONE, path, new byte[8], 0, 8));
        assertThrows(IOException.class, () -> new FileQueue(path).put(1, bytes("x")));
        try (FileQueue.Writer writer = new FileQueue(path).writer()) {
            assertThrows(IOException.class, () -> writer.put(bytes("x")));
        }
    }

    @Test
    public void theChannelCountsWhatPasses() throws Exception {
        int channel = fresh('F');
        put(channel, queue, 9, "one", false);
        put(channel, queue, 9, "two", true);
        put(channel, queue, 9, "three", false);
        assertEquals(3, longAt(channel, FPCNT));
        assertEquals(3, pcountFor(channel, 9));
        assertEquals(1, longAt(channel, TCNT + 9 * RECORD + ECOUNT));
        assertEquals(3, getCount(channel));
        byte[] buffer = new byte[8];
        long handle = readFileQueue(channel, queue, buffer, 0, 8);
        assertEquals(0, readFileQueueCommit(channel, handle, 5));
        assertEquals(1, longAt(channel, FGCNT));
        assertEquals("errors of a read go to the get counter", 5,
                LiveStat.getLong(channel, LiveStat.IID_GETL_ECOUNT));
        put(999, queue, 9, "any number of a channel", false);
        assertEquals(2, getCount(channel));
    }

    @Test
    public void theWritersSideIsLockedUntilTheEnd() throws Exception {
        long handle = writeFileQueueBuf(NONE, queue, 1, bytes("first"), 0, 5, false);
        FutureTask<Integer> second = new FutureTask<>(() -> put(NONE, queue, 1, "second", false));
        new Thread(second).start();
        assertThrows(TimeoutException.class, () -> second.get(200, TimeUnit.MILLISECONDS));
        writeFileQueueBufCommit(NONE, handle);
        assertEquals(0, (int) second.get(10, TimeUnit.SECONDS));
        assertEquals("first", take());
        assertEquals("second", take());
    }

    @Test
    public void theClassCommitsOrLeavesThingsAsTheyWere() throws Exception {
        FileQueue files = new FileQueue(queue);
        try (FileQueue.Writer writer = files.writer()) {
            writer.put(bytes("dropped"));
        }
        try (FileQueue.Writer writer = files.writer()) {
            writer.commit();
            writer.put(bytes("one"));
            writer.put(bytes("two"));
        }
        files.put(1, bytes("three"));
        try (FileQueue.Writer writer = files.writer()) {
            writer.put(bytes("four"));
            writer.commit();
        }
        for (boolean commit : new boolean[] {false, true}) {
            try (FileQueue.Reader reader = files.reader(10)) {
                assertArrayEquals(bytes("three"), reader.next());
                assertArrayEquals(bytes("four"), reader.next());
                assertNull(reader.next());
                if (commit) {
                    reader.commit();
                }
            }
        }
        try (FileQueue.Reader reader = files.reader(10)) {
            assertNull(reader.next());
            reader.commit();
        }
        assertFalse(new File(queue + ".missing").exists());
    }

    private static void failed(String code, ThrowingRunnable call) {
        HalvoException failure = assertThrows(HalvoException.class, call);
        assertEquals(failure.getMessage(), code, failure.codeName());
        assertTrue(failure.getMessage(), failure.getMessage().contains(code));
        assertFalse(failure.isTimeout());
    }

    @Test
    public void aTransactionKnowsItsState() throws Exception {
        FileQueue files = new FileQueue(queue);
        FileQueue.Writer writer = files.writer();
        writer.put(bytes("one"));
        failed("ESMS_INVAL", () -> writer.put(new byte[0]));
        assertThrows(IllegalStateException.class, () -> files.put(1, bytes("would wait for itself")));
        assertThrows(IllegalStateException.class, () -> files.writer().put(bytes("likewise")));
        new FileQueue(queue + 2).put(1, bytes("another queue"));
        writer.commit();
        writer.put(bytes("dropped"));
        writer.rollback();
        writer.put(bytes("two"));
        writer.commit();
        writer.close();
        assertThrows(IllegalStateException.class, () -> writer.put(bytes("late")));
        assertThrows(IllegalStateException.class, writer::commit);
        files.put(1, bytes("three")); // the side is free

        FileQueue.Reader reader = files.reader(1);
        assertArrayEquals(bytes("one"), reader.next());
        assertThrows(IllegalStateException.class, () -> files.reader().next());
        assertArrayEquals(bytes("two"), reader.next());
        reader.commit();
        assertArrayEquals(bytes("three"), reader.next());
        reader.rollback();
        assertArrayEquals(bytes("three"), reader.next());
        reader.close();
        assertThrows(IllegalStateException.class, reader::next);
        assertThrows(IllegalStateException.class, reader::commit);
        assertEquals("three", take());
    }

    @Test
    public void aBadRangeLeavesNoLock() throws Exception {
        assertThrows(ArrayIndexOutOfBoundsException.class,
                () -> writeFileQueueBuf(NONE, queue, 1, new byte[3], 2, 2, false));
        FutureTask<Integer> next = new FutureTask<>(() -> put(NONE, queue, 1, "next", false));
        Thread thread = new Thread(next);
        thread.setDaemon(true);
        thread.start();
        assertEquals(0, (int) next.get(10, TimeUnit.SECONDS));
        assertEquals("next", take());
    }

    @Test
    public void theReaderTellsWhyThereIsNothing() throws Exception {
        String missing = directory + "/missing/mo";
        failed("FQ_LOCK_FILE", () -> new FileQueue(missing).put(1, bytes("x")));
        failed("FQ_LOCK_FILE", () -> new FileQueue(missing).writer().put(bytes("x")));
        failed("FQ_LOCK_FILE", () -> new FileQueue(missing).reader().next());
        failed("ESMS_INVAL", () -> new FileQueue(new String(new char[5000])).reader().next());
        FileQueue files = new FileQueue(queue);
        byte[] large = new byte[300_000];
        Arrays.fill(large, (byte) 'l');
        try (FileQueue.Reader reader = files.reader(10)) {
            assertNull(reader.next());
            files.put(1, bytes("small"));
            files.put(1, large);
            files.put(1, bytes("after it"));
            assertArrayEquals(bytes("small"), reader.next());
            assertArrayEquals(large, reader.next());
            assertArrayEquals(bytes("after it"), reader.next());
            assertNull(reader.next());
            reader.commit();
        }
        Files.write(new File(queue + ".head").toPath(), bytes("no position at all, not anywhere"));
        String damage = assertThrows(HalvoException.class, () -> files.reader().next()).codeName();
        assertTrue(damage, damage.startsWith("FQ_"));
    }

    @Test
    public void aPollWaitsForTheNextItem() throws Exception {
        FileQueue files = new FileQueue(queue);
        try (FileQueue.Reader reader = files.reader()) {
            long start = System.nanoTime();
            assertNull(reader.poll(Duration.ofMillis(150)));
            assertTrue(System.nanoTime() - start >= 150_000_000L);
            new Thread(() -> assertEquals(0, put(NONE, queue, 1, "late", false))).start();
            assertArrayEquals(bytes("late"), reader.poll(Duration.ofSeconds(30)));
            reader.commit();
            Thread.currentThread().interrupt();
            assertThrows(InterruptedException.class, () -> reader.poll(Duration.ofSeconds(30)));
        }
    }
}
