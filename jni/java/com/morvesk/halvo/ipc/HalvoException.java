package com.morvesk.halvo.ipc;

import java.io.IOException;

/** A failed operation, with the library's result code, its name and its meaning. */
public class HalvoException extends IOException {
    private static final long serialVersionUID = 1L;

    private static final String[][] CODES = {
        {"ESMS_OK", "success"},
        {"ESMS_TIMEOUT", "the time ran out"},
        {"ESMS_FULL", "no free slot"},
        {"ESMS_EMPTY", "nothing to read"},
        {"ESMS_MTXINIT", "a mutex could not be initialised"},
        {"ESMS_MTXLOCK", "a lock could not be taken, or the read lock not given back"},
        {"ESMS_MTXUNLOCK", "a lock could not be given back"},
        {"ESMS_NOINIT", "the segment is not attached"},
        {"ESMS_ALREADY", "a segment is already attached"},
        {"ESMS_SHMOP", "there is no such segment, or it cannot be attached"},
        {"ESMS_INVAL", "invalid argument"},
        {"ESMS_FAILED", "the operation failed"},
        {"ESMS_EXEED", "the message is too long"},
        {"ESMS_PENDING", "an uncommitted mark or buffer is in the way"},
        {"ESMS_NOTARGET", "there is nothing to commit or roll back"},
        {"ESMS_JAVAINTR", "the wait was interrupted"},
        {"ESMS_ACCESS", "this process does not hold the end"},
        {"ESMS_STAT", "reserved"},
    };
    private static final String UNKNOWN = "unknown code";

    /** The result code, below 0. */
    private final int code;
    /** The name of the code. */
    private final String name;

    /**
     * Makes the exception of a failed operation.
     *
     * @param operation what was tried, for the message
     * @param code      the result code, below 0
     */
    public HalvoException(String operation, int code) {
        this(operation, code, isKnown(code) ? CODES[-code][1] : UNKNOWN);
    }

    /** With a text of its own in place of the code's meaning. */
    HalvoException(String operation, int code, String text) {
        this(operation, code, nameOf(code), text);
    }

    /** For a code that is not one of {@link IPCFunctions}. */
    HalvoException(String operation, int code, String name, String text) {
        super(operation + ": " + name + " (" + code + "): " + text);
        this.code = code;
        this.name = name;
    }

    /**
     * The result code.
     *
     * @return the code: one of the {@code ESMS_} constants of {@link IPCFunctions} when
     *     {@link #codeName} begins so, else the file queue's own
     */
    public int code() {
        return code;
    }

    /**
     * The name of the result code.
     *
     * @return the name, such as {@code "ESMS_FULL"}, or one that begins with {@code "FQ_"}
     */
    public String codeName() {
        return name;
    }

    /**
     * Whether the operation ran out of time.
     *
     * @return true for {@link IPCFunctions#ESMS_TIMEOUT}
     */
    public boolean isTimeout() {
        return name.equals("ESMS_TIMEOUT");
    }

    /**
     * The name of a result code.
     *
     * @param code a result code
     * @return its name, or {@code "unknown code"}
     */
    public static String nameOf(int code) {
        return isKnown(code) ? CODES[-code][0] : UNKNOWN;
    }

    private static boolean isKnown(int code) {
        return code <= 0 && code > -CODES.length;
    }

    /** Returns a result that is no failure, and throws otherwise. */
    static int check(String operation, int result) throws HalvoException {
        if (result < 0) {
            throw new HalvoException(operation, result);
        }
        return result;
    }
}
