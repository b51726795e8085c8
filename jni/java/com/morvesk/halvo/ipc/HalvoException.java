package com.morvesk.halvo.ipc;

import java.io.IOException;

/** A failed operation, with the library's result code. */
public class HalvoException extends IOException {
    private static final long serialVersionUID = 1L;

    private static final String[] NAMES = {
        "ESMS_OK", "ESMS_TIMEOUT", "ESMS_FULL", "ESMS_EMPTY", "ESMS_MTXINIT", "ESMS_MTXLOCK",
        "ESMS_MTXUNLOCK", "ESMS_NOINIT", "ESMS_ALREADY", "ESMS_SHMOP", "ESMS_INVAL", "ESMS_FAILED",
        "ESMS_EXEED", "ESMS_PENDING", "ESMS_NOTARGET", "ESMS_JAVAINTR", "ESMS_ACCESS", "ESMS_STAT"
    };

    /** The result code, below 0. */
    private final int code;

    /**
     * Makes the exception of a failed operation.
     *
     * @param operation what was tried, for the message
     * @param code      the result code, below 0
     */
    public HalvoException(String operation, int code) {
        super(operation + ": " + nameOf(code) + " (" + code + ")");
        this.code = code;
    }

    /**
     * The result code.
     *
     * @return the code, one of the {@code ESMS_} constants of {@link IPCFunctions}
     */
    public int code() {
        return code;
    }

    /**
     * The name of the result code.
     *
     * @return the name, such as {@code "ESMS_FULL"}
     */
    public String codeName() {
        return nameOf(code);
    }

    /**
     * Whether the operation ran out of time.
     *
     * @return true for {@link IPCFunctions#ESMS_TIMEOUT}
     */
    public boolean isTimeout() {
        return code == IPCFunctions.ESMS_TIMEOUT;
    }

    /**
     * The name of a result code.
     *
     * @param code a result code
     * @return its name, or {@code "unknown code"}
     */
    public static String nameOf(int code) {
        return code <= 0 && code > -NAMES.length ? NAMES[-code] : "unknown code";
    }

    /** Returns a result that is no failure, and throws otherwise. */
    static int check(String operation, int result) throws HalvoException {
        if (result < 0) {
            throw new HalvoException(operation, result);
        }
        return result;
    }
}
