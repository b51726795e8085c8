package com.morvesk.halvo.ipc;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.Arrays;

/** The reads of a {@link Channel}, and the memory that they use again and again, in their turns. */
final class ChannelReads {
    private static final int MOST_MARKED_BYTES = 1 << 30;
    private final ChannelEnd end;
    private final byte[] scratch; // for the message that is being read
    private byte[] slots = {}; // of marked messages
    private final Into into = new Into();
    volatile int lastType = -1;

    ChannelReads(ChannelEnd end) {
        this.end = end;
        scratch = new byte[end.longest + 2];
    }

    // ---- A message of its own

    Channel.Message poll(Duration timeout) throws HalvoException, InterruptedException {
        Taken taken = new Taken();
        return taken.message(end.inTime(timeout, IPCFunctions.ESMS_EMPTY, taken));
    }

    Channel.Message tryRead() throws HalvoException {
        Taken taken = new Taken();
        return taken.message(end.atOnce(IPCFunctions.ESMS_EMPTY, taken));
    }

    /** Reads into the scratch array and, still in turn, makes a message of it. */
    private final class Taken implements WakeableCall.Call {
        private byte[] body;

        @Override
        public long run(ByteBuffer cell, int millis) {
            long taken = ChannelCalls.read(cell, end.number, scratch, 0, scratch.length, millis);
            if (taken >= 0) {
                body = Arrays.copyOf(scratch, (int) taken);
            }
            return taken;
        }

        Channel.Message message(long result) throws HalvoException {
            if (result == IPCFunctions.ESMS_TIMEOUT || result == IPCFunctions.ESMS_EMPTY) {
                return null;
            }
            end.check("read from", result);
            return new Channel.Message((int) (result >> 32), body);
        }
    }

    // ---- Into the caller's memory

    int into(byte[] array, int offset, int length, Duration timeout)
            throws HalvoException, InterruptedException {
        return into(array, offset, length, null, timeout);
    }

    int into(ByteBuffer buffer, Duration timeout) throws HalvoException, InterruptedException {
        return into(scratch, 0, Math.min(buffer.remaining(), scratch.length), buffer, timeout);
    }

    private int into(byte[] array, int offset, int length, ByteBuffer copy, Duration timeout)
            throws HalvoException, InterruptedException {
        if (!end.take(timeout)) {
            return taken(IPCFunctions.ESMS_TIMEOUT, length);
        }
        try {
            into.set(array, offset, length);
            long taken = end.inTurn(timeout, IPCFunctions.ESMS_EMPTY, into);
            if (taken >= 0 && copy != null) {
                copy.put(array, 0, (int) taken);
            }
            return taken(taken, length);
        } finally {
            into.array = null;
            end.give();
        }
    }

    /** The one call that reads into the caller's memory, for whoever has the turn. */
    private final class Into implements WakeableCall.Call {
        private byte[] array;
        private int offset;
        private int length;

        void set(byte[] into, int from, int room) {
            array = into;
            offset = from;
            length = room;
        }

        @Override
        public long run(ByteBuffer cell, int millis) {
            return ChannelCalls.read(cell, end.number, array, offset, length, millis);
        }
    }

    private int taken(long taken, int room) throws HalvoException {
        if (taken == IPCFunctions.ESMS_EXEED) {
            throw new HalvoException("read from " + end.name, (int) taken,
                    "the next message is longer than " + room + " bytes");
        }
        end.check("read from", taken);
        lastType = (int) (taken >> 32);
        return (int) taken;
    }

    // ---- Marked messages

    Marked mark(int max, Duration timeout) throws HalvoException, InterruptedException {
        int slotSize = IPCFunctions.sizeOfBlock(end.number);
        int most = Math.min(Math.min(max, end.slots()), MOST_MARKED_BYTES / slotSize);
        Marking marking = new Marking(slotSize, most);
        long result = end.inTime(timeout, IPCFunctions.ESMS_EMPTY, marking);
        if (result == IPCFunctions.ESMS_TIMEOUT) {
            return new Marked(end, slots, slotSize, marking.owner);
        }
        end.check("mark messages of", result);
        return marking.marked;
    }

    /** Only one set is marked at a time, and so the array for its slots is used again. */
    private final class Marking implements WakeableCall.Call {
        private final int slotSize;
        private final int most;
        private final Thread owner = Thread.currentThread();
        private Marked marked;

        Marking(int slotSize, int most) {
            this.slotSize = slotSize;
            this.most = most;
        }

        @Override
        public long run(ByteBuffer cell, int millis) {
            if (slots.length / slotSize < most) {
                slots = new byte[slotSize * most];
            }
            marked = new Marked(end, slots, slotSize, owner);
            return marked.begin(cell, most, millis);
        }
    }
}
