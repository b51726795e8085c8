import com.morvesk.halvo.ipc.Channel;
import com.morvesk.halvo.ipc.HalvoException;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.time.Duration;

/** Writes the messages of a channel to a file, one a line. */
public final class ReceiveLines {
    private static final Duration PATIENCE = Duration.ofSeconds(30);

    private ReceiveLines() {}

    /**
     * The program.
     *
     * @param args key file, channel name, file to write, number of messages
     * @throws Exception when the channel cannot be opened or the file not be written
     */
    public static void main(String[] args) throws Exception {
        if (args.length != 4) {
            System.err.println("usage: java ReceiveLines <key file> <channel> <file> <messages>");
            System.exit(2);
        }
        long wanted = Long.parseLong(args[3]);
        Channel.attach(args[0]);
        long got;
        try (OutputStream out = new BufferedOutputStream(Files.newOutputStream(Paths.get(args[2])));
                Channel in = Channel.openReader("ReceiveLines", args[1], PATIENCE)) {
            got = receive(in, out, wanted);
        }
        System.err.println("ReceiveLines: " + got + " messages");
        System.exit(got == wanted ? 0 : 1);
    }

    /** Receives until the number is complete or nothing comes for a while. Returns the number. */
    private static long receive(Channel in, OutputStream out, long wanted)
            throws IOException, InterruptedException {
        long got = 0;
        try {
            for (; got < wanted; got++) {
                out.write(in.read(PATIENCE).body());
                out.write('\n');
            }
        } catch (HalvoException e) {
            if (!e.isTimeout()) {
                throw e;
            }
        }
        return got;
    }
}
