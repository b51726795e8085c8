package com.morvesk.halvo.ipc;

import java.io.IOException;

/**
 * Single items of the attached segment, chosen by an item id.
 *
 * <p>A <b>type item</b> belongs to a message type: with a channel it is the channel's own, without
 * one the segment's. Its index is the type, 0 to 4095; most methods also accept 4096, which tells
 * nothing of use. Failures raise {@link IOException}, except from the two byte methods. The texts
 * are Korean and arrive as the library has them, in EUC-KR bytes that the VM takes for UTF-8. So do
 * names that C programs have stored in EUC-KR: for their raw bytes take the header by
 * {@link #getBytes} and decode the name with {@code new String(bytes, offset, length, "EUC-KR")}.
 * Most of these bytes also cost the text a character at its end: with such a name of a channel, the
 * status document is cut short.
 *
 * <p>Nothing here waits, and any process that has attached may call it. The segment is read without
 * a lock: a 64-bit count may be caught half written.
 */
public final class LiveStat {
    static {
        NativeLibrary.load();
    }

    /** {@link #getBytes}: the segment header. */
    public static final int IID_GETB_QMAP = 10000;
    /** {@link #getInt}: bytes of the segment header. */
    public static final int IID_GETI_QMAPSZ = 10001;
    /** {@link #getBytes}: a channel header. */
    public static final int IID_GETB_QSTAT = 10002;
    /** {@link #getInt}: bytes of a channel header. */
    public static final int IID_GETI_QSTATSZ = 10003;
    /** {@link #getInt}: the number of channels. */
    public static final int IID_GETI_QCOUNT = 10004;
    /** {@link #getString}: a channel's name. */
    public static final int IID_GETS_QNAME = 10005;
    /** {@link #setString}: the name of a type. */
    public static final int IID_SETS_TNAME = 11001;
    /** {@link #getString}: the name of a type. */
    public static final int IID_GETS_TNAME = 11002;
    /** {@link #getInt}: the number of message types. */
    public static final int IID_GETI_TMAX = 11003;
    /** {@link #getInt}: the ratio of a type. */
    public static final int IID_GETI_TRATIO = 11004;
    /** {@link #setInt}: the ratio of a type. */
    public static final int IID_SETI_TRATIO = 11005;
    /** {@link #getBytes}: the counter record of a type, an index up to 4095. */
    public static final int IID_GETB_COUNTER = 11006;
    /** Reserved; no method accepts it. */
    public static final int IID_SETB_COUNTER = 11007;
    /** {@link #getInt}: bytes of a counter record. */
    public static final int IID_GETI_COUNTERSZ = 11008;
    /** Reserved; no method accepts it. */
    public static final int IID_GET_Q_RATIO = 11009;
    /** Reserved; no method accepts it. */
    public static final int IID_SET_Q_RATIO = 11010;
    /** Reserved; no method accepts it. */
    public static final int IID_SET_TYPE_COUNT = 11011;
    /** Reserved; no method accepts it. */
    public static final int IID_INC_TYPE_COUNT = 11012;
    /** Reserved; no method accepts it. */
    public static final int IID_GET_TYPE_COUNT = 11013;
    /** {@link #getString}: the node name of the host. */
    public static final int IID_GETS_UNAME = 11022;
    /** {@link #getString}: the status of every channel as a JSON document. */
    public static final int IID_GETS_SMSQM = 11023;
    /** {@link #getInt}: the start word of a type. */
    public static final int IID_GETI_TSTART = 11104;
    /** {@link #getInt}: the interval word of a type; always 0 for the segment. */
    public static final int IID_GETI_TINTERVAL = 11105;
    /** {@link #setInt}: the start word of a type. */
    public static final int IID_SETI_TSTART = 11106;
    /** {@link #setInt}: the interval word of a type. */
    public static final int IID_SETI_TINTERVAL = 11107;
    /** {@link #getLong}: the error count of a channel's get counter. */
    public static final int IID_GETL_ECOUNT = 11201;

    private LiveStat() {}

    /**
     * Reads a number.
     *
     * @param chnl  the channel; a negative number for the segment
     * @param iid   the item
     * @param index the type, for type items
     * @return the number
     * @throws IOException for an unknown item, channel or index, and when nothing is attached
     */
    public static native int getInt(int chnl, int iid, int index) throws IOException;

    /**
     * Stores a number.
     *
     * @param chnl  the channel; a negative number for the segment
     * @param iid   the item
     * @param index the type
     * @param value the number
     * @return the number
     * @throws IOException as {@link #getInt}
     */
    public static native int setInt(int chnl, int iid, int index, int value) throws IOException;

    /**
     * Reads a 64-bit number.
     *
     * @param chnl the channel
     * @param iid  the item
     * @return the number
     * @throws IOException for an unknown item or channel, and when nothing is attached
     */
    public static native long getLong(int chnl, int iid) throws IOException;

    /**
     * Does nothing; no 64-bit item can be stored.
     *
     * @param chnl  not used
     * @param iid   not used
     * @param index not used
     * @param value not used
     */
    public static native void setLong(int chnl, int iid, int index, long value);

    /**
     * Reads a text.
     *
     * @param chnl  the channel; for type items 0 or less means the segment
     * @param iid   the item
     * @param index the type, for type items
     * @return the text
     * @throws IOException for an unknown item, channel or index, and when nothing is attached
     */
    public static native String getString(int chnl, int iid, int index) throws IOException;

    /**
     * Stores a text, of which 23 bytes are kept.
     *
     * @param chnl  the channel; 0 or less means the segment
     * @param iid   the item
     * @param index the type
     * @param value the text; null stores nothing
     * @throws IOException as {@link #getString}
     */
    public static native void setString(int chnl, int iid, int index, String value)
            throws IOException;

    /**
     * Stores nothing; no item can be set from bytes.
     *
     * @param chnl   not used
     * @param iid    not used
     * @param index  not used
     * @param buffer not used
     * @param offset not used
     * @param length not used
     * @return 0 when a segment is attached, else {@link IPCFunctions#ESMS_NOINIT}
     */
    public static native int setBytes(
            int chnl, int iid, int index, byte[] buffer, int offset, int length);

    /**
     * Copies a part of the segment as it lies in memory, little-endian.
     *
     * @param chnl   the channel; for a counter record a negative number for the segment
     * @param iid    the item
     * @param index  the type, for a counter record
     * @param buffer receives the bytes
     * @param offset where in the array they begin
     * @param length the most bytes to copy
     * @return 0; {@link IPCFunctions#ESMS_INVAL} for a bad range, channel or index;
     *     {@link IPCFunctions#ESMS_NOINIT}; {@link IPCFunctions#ESMS_FAILED} for any other item
     */
    public static native int getBytes(
            int chnl, int iid, int index, byte[] buffer, int offset, int length);
}
