package com.morvesk.halvo.ipc;

import java.io.File;

/** Loads the library once, for whichever class with natives comes first. */
final class NativeLibrary {
    private static final String PROPERTY = "halvoipc.library";
    private static final String NAME = "halvoipc";
    private static final String SIGNALS = "libjsig.so";

    static {
        try {
            loadNamed();
        } catch (UnsatisfiedLinkError error) {
            throw explained(error);
        } catch (RuntimeException error) { // the VM's IllegalCallerException, since its version 24
            throw explained(error);
        }
    }

    private NativeLibrary() {}

    /** Does nothing but load this class. */
    static void load() {}

    private static void loadNamed() {
        try {
            loadOnce();
        } catch (UnsatisfiedLinkError error) {
            // The library names the one of the VM that it was built with. This VM's own does as well.
            File own = new File(System.getProperty("java.home"), "lib/" + SIGNALS);
            if (!of(error).contains(SIGNALS) || !own.exists()) {
                throw error;
            }
            System.load(own.getPath());
            loadOnce();
        }
    }

    private static void loadOnce() {
        String path = System.getProperty(PROPERTY);
        if (path != null) {
            System.load(path);
        } else {
            System.loadLibrary(NAME);
        }
    }

    private static String of(Throwable error) {
        return String.valueOf(error.getMessage());
    }

    private static UnsatisfiedLinkError explained(Throwable cause) {
        boolean named = System.getProperty(PROPERTY) != null;
        UnsatisfiedLinkError clear = new UnsatisfiedLinkError("Cannot load the Halvo IPC library"
                + (named ? " named by the property " + PROPERTY : "") + ": " + of(cause) + ". "
                + cure(cause));
        clear.initCause(cause);
        return clear;
    }

    private static String cure(Throwable cause) {
        String text = of(cause);
        String file = System.mapLibraryName(NAME);
        if (!(cause instanceof UnsatisfiedLinkError)) {
            return "This VM refuses native code: start java with --enable-native-access=ALL-UNNAMED,"
                    + " or =com.morvesk.halvo.ipc when the jar is on the module path.";
        }
        if (text.contains("wrong ELF class") || text.contains("bit .so on a")) {
            return "The library has the other word size: this VM is of "
                    + System.getProperty("sun.arch.data.model", "?") + " bits and needs the library of"
                    + " that width, or start a VM of the library's.";
        }
        if (text.contains(SIGNALS) || text.contains("libjvm.so")) {
            return "The library was built with a VM at another path: start java with"
                    + " LD_LIBRARY_PATH=" + System.getProperty("java.home") + "/lib in its environment,"
                    + " or the directory that has " + SIGNALS + ".";
        }
        return "Start java with -D" + PROPERTY + "=<full path of " + file
                + ">, or with -Djava.library.path=<its directory>. The library must have the width of"
                + " this VM, which is " + System.getProperty("sun.arch.data.model", "?") + " bits.";
    }
}
