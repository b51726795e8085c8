import com.morvesk.halvo.ipc.Batch;
import com.morvesk.halvo.ipc.Channel;
import com.morvesk.halvo.ipc.IPCFunctions;
import com.morvesk.halvo.ipc.Marked;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.Arrays;

/** One side of a stream of numbered messages. The reader times it. */
public final class Traffic {
    private static final int PATIENCE = 20000; // milliseconds
    private static final Duration LONG = Duration.ofMillis(PATIENCE);
    private static final int PARTS = 100; // as the C side has
    private static final int TOGETHER = 100; // messages of a transaction

    /** One way to write or to read a number of messages, of which the first has a number. */
    private interface Work {
        void run(int first, int count) throws Exception;
    }

    private Traffic() {}

    /**
     * The program.
     *
     * @param args key file, channel name, "write" or "read", messages before the clock starts,
     *     messages that are timed (a multiple of 100), bytes of a message, file for what the
     *     reader timed, "natives", "single" or "transactions"
     * @throws Exception when a message is lost
     */
    public static void main(String[] args) throws Exception {
        Channel.attach(args[0]);
        boolean write = args[2].equals("write");
        int warm = Integer.parseInt(args[3]);
        int count = Integer.parseInt(args[4]);
        byte[] body = new byte[Integer.parseInt(args[5])];
        Channel end = write ? Channel.openWriter("traffic", args[1], LONG)
                : Channel.openReader("traffic", args[1], LONG);
        if (write) {
            writer(args[7], end, body).run(0, warm + count);
        } else {
            Work reader = reader(args[7], end, body);
            reader.run(0, warm);
            Files.write(Paths.get(args[6]),
                    time(reader, warm, count).getBytes(StandardCharsets.US_ASCII));
        }
        System.exit(0);
    }

    private static Work writer(String how, Channel out, byte[] body) {
        int channel = out.number();
        switch (how) {
            case "natives":
                return (first, count) -> {
                    for (int i = first; i < first + count; i++) {
                        number(body, i);
                        check(IPCFunctions.write(channel, 1, body, 0, body.length, PATIENCE));
                    }
                };
            case "single":
                return (first, count) -> {
                    for (int i = first; i < first + count; i++) {
                        number(body, i);
                        out.write(1, body, LONG);
                    }
                };
            default:
                Batch batch = out.batch();
                return (first, count) -> {
                    for (int i = first; i < first + count; i++) {
                        number(body, i);
                        batch.write(1, body);
                        if (batch.size() == TOGETHER) {
                            batch.commit(LONG);
                        }
                    }
                    batch.commit(LONG);
                };
        }
    }

    private static Work reader(String how, Channel in, byte[] body) {
        int channel = in.number();
        switch (how) {
            case "natives":
                return (first, count) -> {
                    for (int i = first; i < first + count; i++) {
                        check(IPCFunctions.read(channel, body, 0, body.length, PATIENCE, false));
                        compare(body, i);
                    }
                };
            case "single":
                return (first, count) -> {
                    for (int i = first; i < first + count; i++) {
                        compare(in.read(LONG).body(), i);
                    }
                };
            default:
                return (first, count) -> {
                    for (int i = first; i < first + count;) {
                        try (Marked marked = in.mark(Math.min(TOGETHER, first + count - i), LONG)) {
                            for (Channel.Message message : marked) {
                                compare(message.body(), i++);
                            }
                            marked.commit();
                        }
                    }
                };
        }
    }

    private static void number(byte[] body, int i) {
        body[0] = (byte) i;
        body[body.length - 1] = (byte) (i >> 8);
    }

    private static void compare(byte[] body, int i) {
        if (body[0] != (byte) i || body[body.length - 1] != (byte) (i >> 8)) {
            throw new IllegalStateException("message " + i + " is another");
        }
    }

    /** Nanoseconds of all messages, and of the middle one of a hundred parts for one message. */
    private static String time(Work reader, int first, int count) throws Exception {
        long[] parts = new long[PARTS];
        int size = count / PARTS;
        long start = System.nanoTime();
        long before = start;
        for (int part = 0; part < PARTS; part++) {
            reader.run(first + part * size, size);
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
