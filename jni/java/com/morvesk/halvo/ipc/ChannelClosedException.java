package com.morvesk.halvo.ipc;

/** Another thread closed the channel while this one waited. Nothing was read or written. */
public final class ChannelClosedException extends HalvoException {
    private static final long serialVersionUID = 1L;

    ChannelClosedException(String operation) {
        super(operation, IPCFunctions.ESMS_JAVAINTR, "the channel was closed meanwhile");
    }
}
