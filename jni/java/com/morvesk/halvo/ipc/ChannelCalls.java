package com.morvesk.halvo.ipc;

import java.nio.ByteBuffer;

/**
 * The natives of {@link Channel}. They answer with counts and the codes of {@link IPCFunctions},
 * and raise nothing. Those with a cell wait, until {@link #wake} at the latest; without one they
 * try once.
 */
final class ChannelCalls {
    static {
        NativeLibrary.load();
    }

    private ChannelCalls() {}

    /** The id of the segment of a key file, or ESMS_SHMOP when none is there that is complete. */
    static native int segmentOf(String keyFile);

    /** The id of the attached segment, or -1. */
    static native int attachedSegment();

    /** As {@link IPCFunctions#openChannel}. */
    static native int open(
            ByteBuffer cell, String client, int channel, boolean forWrite, int timeout);

    /** Puts an end right when its last holder died in the middle of an operation. */
    static native int recover(int channel, boolean forWrite);

    /** The process that holds or held an end, or 0; its name goes into 24 bytes. */
    static native int holder(int channel, boolean forWrite, byte[] name);

    /** The type of the message read, times 2^32, and its length; ESMS_EXEED leaves it. */
    static native long read(
            ByteBuffer cell, int channel, byte[] into, int offset, int length, int timeout);

    static native int write(ByteBuffer cell, int channel, int type, byte[] data, int offset,
            int length, int timeout);

    /** Marks 1 to n messages and copies each to the place of its slot; their number. */
    static native int mark(ByteBuffer cell, int channel, int n, byte[] slots, int timeout);

    /** Writes what a {@link Batch} has staged; the number of messages written. */
    static native int writeAll(
            ByteBuffer cell, int channel, byte[] staged, int count, int timeout);

    /** Ends the waits with this cell, also those to come, until {@link #rearm}. */
    static native void wake(ByteBuffer cell);

    static native void rearm(ByteBuffer cell);
}
