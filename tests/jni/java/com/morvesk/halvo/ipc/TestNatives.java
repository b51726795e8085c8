package com.morvesk.halvo.ipc;

/** What Java tests need and Java cannot do. */
final class TestNatives {
    static {
        IPCFunctions.initialized(); // the library comes first
        System.load(System.getProperty("halvo.test.natives"));
    }

    private TestNatives() {}

    static native long thisThread();
    static native int interrupt(long thread);

    static native int variable(String symbol);
    static native int resultCode(String name);

    static native String vmString(byte[] bytes);

    static native void peek(int channel, int offset, byte[] into);
    static native void poke(int channel, int offset, byte[] from);

    static native int takePosts(String keyFile, int channel);

    static native void fillRegistry();
    static native void emptyRegistry();
}
