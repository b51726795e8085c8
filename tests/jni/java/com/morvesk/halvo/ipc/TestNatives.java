package com.morvesk.halvo.ipc;

/** What Java tests need and Java cannot do. */
final class TestNatives {
    static {
        IPCFunctions.initialized(); // the library comes first
        System.load(System.getProperty("halvo.test.natives"));
    }

    private TestNatives() {}

    static native long thisThread();

    /** Sends a thread a signal that is not the library's. */
    static native int interrupt(long thread);

    static native boolean exports(String symbol);

    static native int variable(String symbol);

    /** The value of a result code in C; 1 for an unknown name. */
    static native int resultCode(String name);

    /** What the VM makes of bytes that it takes for UTF-8. */
    static native String vmString(byte[] bytes);

    static native void peek(int channel, int offset, byte[] into);

    static native void poke(int channel, int offset, byte[] from);

    /** The value of a channel's semaphore in the sets of a key file: that with .post or .req. */
    static native int semaphore(String keyFile, int channel);

    static native void fillRegistry();

    static native void emptyRegistry();
}
