package com.morvesk.halvo.ipc;

/** Gives every message of a channel back through another, in a VM of its own. */
public final class EchoPeer {
    private EchoPeer() {}

    /**
     * The program.
     *
     * @param args the channels to read and to write, and the number of messages
     * @throws Exception when a message is missing for half a minute
     */
    public static void main(String[] args) throws Exception {
        int in = TestSegment.open(TestSegment.named(args[0]), false);
        int out = TestSegment.open(TestSegment.named(args[1]), true);
        TimeoutMonitor.start();
        byte[] body = new byte[TestSegment.SLOT_SIZE];
        for (int left = Integer.parseInt(args[2]); left > 0; left--) {
            int length = IPCFunctions.read(in, body, 0, body.length, 30000, false);
            if (length < 1 || IPCFunctions.write(out, 1, body, 0, length, 30000) != 0) {
                System.err.println("echo: " + length + " with " + left + " to go");
                System.exit(1);
            }
        }
    }
}
