import com.morvesk.halvo.ipc.Channel;
import com.morvesk.halvo.ipc.IPCFunctions;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;

/** One side of a stream of numbered messages, by the bare natives. The reader times it. */
public final class Traffic {
    private static final int PATIENCE = 20000; // milliseconds

    private Traffic() {}

    /**
     * The program.
     *
     * @param args key file, channel number, "write" or "read", messages before the clock starts,
     *     messages that are timed, bytes of a message, file for the nanoseconds (read only)
     * @throws Exception when a message is lost
     */
    public static void main(String[] args) throws Exception {
        Channel.attach(args[0]);
        int channel = Integer.parseInt(args[1]);
        boolean write = args[2].equals("write");
        int warm = Integer.parseInt(args[3]);
        int count = Integer.parseInt(args[4]);
        byte[] body = new byte[Integer.parseInt(args[5])];
        check(IPCFunctions.openChannel("traffic", channel, write, PATIENCE));
        if (write) {
            write(channel, body, 0, warm + count);
        } else {
            read(channel, body, 0, warm);
            long start = System.nanoTime();
            read(channel, body, warm, count);
            String took = Long.toString(System.nanoTime() - start);
            Files.write(Paths.get(args[6]), took.getBytes(StandardCharsets.US_ASCII));
        }
        System.exit(0);
    }

    private static void write(int channel, byte[] body, int first, int count) throws Exception {
        for (int i = first; i < first + count; i++) {
            body[0] = (byte) i;
            body[body.length - 1] = (byte) (i >> 8);
            check(IPCFunctions.write(channel, 1, body, 0, body.length, PATIENCE));
        }
    }

    private static void read(int channel, byte[] body, int first, int count) {
        for (int i = first; i < first + count; i++) {
            check(IPCFunctions.read(channel, body, 0, body.length, PATIENCE, false));
            if (body[0] != (byte) i || body[body.length - 1] != (byte) (i >> 8)) {
                throw new IllegalStateException("message " + i + " is another");
            }
        }
    }

    private static void check(int result) {
        if (result < 0) {
            throw new IllegalStateException("result " + result);
        }
    }
}
