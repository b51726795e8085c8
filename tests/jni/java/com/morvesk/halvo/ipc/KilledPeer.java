package com.morvesk.halvo.ipc;

import static org.junit.Assert.*;

import java.io.RandomAccessFile;
import java.nio.ByteOrder;
import java.nio.MappedByteBuffer;
import java.nio.channels.FileChannel;
import java.time.Duration;

/**
 * Writes or reads numbered messages and may be killed and started again at any moment: KilledPeer
 * KEYFILE CHANNEL write|read COUNT LEDGER. The ledger has the next number, and how many came twice.
 */
public final class KilledPeer {
    private static final Duration LONG = Duration.ofSeconds(60);
    private static final int AT_ONCE = 50;

    private KilledPeer() {}

    public static void main(String[] args) throws Exception {
        Channel.attach(args[0], LONG);
        int count = Integer.parseInt(args[3]);
        MappedByteBuffer ledger = new RandomAccessFile(args[4], "rw").getChannel()
                .map(FileChannel.MapMode.READ_WRITE, 0, 8);
        ledger.order(ByteOrder.LITTLE_ENDIAN);
        if (args[2].equals("write")) {
            write(args[1], count, ledger);
        } else {
            read(args[1], count, ledger);
        }
        System.exit(0);
    }

    private static byte[] message(int number) {
        return String.format("%040d", number).getBytes();
    }

    private static void write(String channel, int count, MappedByteBuffer ledger) throws Exception {
        try (Channel out = Channel.openWriter("writer", channel, LONG);
                Batch batch = out.batch()) {
            for (int next = ledger.getInt(0); next < count; next = ledger.getInt(0)) {
                while (batch.size() < AT_ONCE && next < count) {
                    batch.write(1, message(next++));
                }
                batch.commit(LONG);
                ledger.putInt(0, next);
                if (next % (4 * AT_ONCE) == 0) {
                    Thread.sleep(1); // there must be time for kills
                }
            }
        }
    }

    private static void read(String channel, int count, MappedByteBuffer ledger) throws Exception {
        try (Channel in = Channel.openReader("reader", channel, LONG)) {
            while (ledger.getInt(0) < count) {
                try (Marked messages = in.mark(2 * AT_ONCE, LONG)) {
                    for (Channel.Message message : messages) {
                        take(message.body(), ledger);
                    }
                    messages.commit();
                }
            }
        }
    }

    private static void take(byte[] body, MappedByteBuffer ledger) {
        int number = Integer.parseInt(new String(body));
        int expected = ledger.getInt(0);
        assertTrue(number + " instead of " + expected, number <= expected);
        assertArrayEquals(message(number), body);
        int counted = number == expected ? 0 : 4;
        ledger.putInt(counted, ledger.getInt(counted) + 1);
    }
}
