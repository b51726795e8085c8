package com.morvesk.halvo.ipc;

/** Loads the library once, for whichever class with natives comes first. */
final class NativeLibrary {
    private static final String PROPERTY = "halvoipc.library";
    private static final String NAME = "halvoipc";

    static {
        String path = System.getProperty(PROPERTY);
        try {
            if (path != null) {
                System.load(path);
            } else {
                System.loadLibrary(NAME);
            }
        } catch (UnsatisfiedLinkError error) {
            UnsatisfiedLinkError clear = new UnsatisfiedLinkError(advice(path, error.getMessage()));
            clear.initCause(error);
            throw clear;
        }
    }

    private NativeLibrary() {}

    /** Does nothing but load this class. */
    static void load() {}

    private static String advice(String path, String cause) {
        return "Cannot load the Halvo IPC library"
                + (path != null ? " named by the property " + PROPERTY : "") + ": " + cause
                + ". Start java with -D" + PROPERTY + "=<full path of "
                + System.mapLibraryName(NAME) + ">, or with -Djava.library.path=<its directory>. The library must have the width"
                + " of this VM, which is " + System.getProperty("sun.arch.data.model", "?")
                + " bits, and finds the VM that it was built with.";
    }
}
