package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import org.junit.function.ThrowingRunnable;

/** What several calls are expected to do alike. */
final class Expect {
    private Expect() {}

    /** Natives that all answer the same. */
    static void all(long expected, long... answers) {
        for (int i = 0; i < answers.length; i++) {
            assertEquals("answer " + (i + 1), expected, answers[i]);
        }
    }

    static void raises(Class<? extends Throwable> type, ThrowingRunnable... calls) {
        for (ThrowingRunnable call : calls) {
            assertThrows(type, call);
        }
    }

    /** The call raises a HalvoException with that code, whose text has that part. */
    static void refused(int code, String part, ThrowingRunnable call) {
        HalvoException refusal = assertThrows(HalvoException.class, call);
        String text = refusal.getMessage();
        assertEquals(text, code, refusal.code());
        assertTrue(text, text.contains(part) && text.contains(refusal.codeName()));
        assertEquals(text, code == IPCFunctions.ESMS_TIMEOUT, refusal.isTimeout());
        assertEquals(HalvoException.nameOf(code), refusal.codeName());
    }

    static void refused(int code, ThrowingRunnable... calls) {
        for (ThrowingRunnable call : calls) {
            refused(code, "", call);
        }
    }
}
