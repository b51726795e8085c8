import com.morvesk.halvo.ipc.Channel;
import com.morvesk.halvo.ipc.IPCFunctions;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;

/** One side of a stream of numbered messages, by the bare natives. The reader times it. */
public final class Traffic {
    private static final int PATIENCE = 20000; // milliseconds
    private static final int PARTS = 100; // as the C side has

    private Traffic() {}

    /**
     * The program.
     *
     * @param args key file, channel number, "write" or "read", messages before the clock starts,
     *     messages that are timed (a multiple of 100), bytes of a message, file for what the
     *     reader timed
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
            String took = time(channel, body, warm, count);
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

    /** Nanoseconds of all messages, and of the middle one of a hundred parts for one message. */
    private static String time(int channel, byte[] body, int first, int count) {
        long[] parts = new long[PARTS];
        int size = count / PARTS;
        long start = System.nanoTime();
        long before = start;
        for (int part = 0; part < PARTS; part++) {
            read(channel, body, first + part * size, size);
            long now = System.nanoTime();
            parts[part] = now - before;
            before = now;
        }
        Arrays.sort(parts);
        return (before - start) + " " + (double) parts[PARTS / 2] / size;
    }

    private static void check(int result) {
        if (result < 0) {
            throw new IllegalStateException("result " + result);
        }
    }
}
