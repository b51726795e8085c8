import com.morvesk.halvo.ipc.Channel;
import java.io.BufferedInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.time.Duration;

/** Sends every line of a file, without its line feed, as one message of a channel. */
public final class SendLines {
    private static final int TYPE = 1;
    private static final Duration PATIENCE = Duration.ofSeconds(30);

    private SendLines() {}

    /**
     * The program.
     *
     * @param args key file, channel name, file to send
     * @throws Exception when a line cannot be sent
     */
    public static void main(String[] args) throws Exception {
        if (args.length != 3) {
            System.err.println("usage: java SendLines <key file> <channel> <file>");
            System.exit(2);
        }
        Channel.attach(args[0]);
        long sent = 0;
        try (InputStream in = new BufferedInputStream(Files.newInputStream(Paths.get(args[2])));
                Channel out = Channel.openWriter("SendLines", args[1], PATIENCE)) {
            for (byte[] line; (line = readLine(in)) != null;) {
                if (line.length > 0) { // an empty line is no message
                    out.write(TYPE, line, PATIENCE);
                    sent++;
                }
            }
        }
        System.err.println("SendLines: " + sent + " messages");
    }

    /** The bytes up to the next line feed or the end; null at the end. */
    private static byte[] readLine(InputStream in) throws IOException {
        int next = in.read();
        if (next < 0) {
            return null;
        }
        ByteArrayOutputStream line = new ByteArrayOutputStream();
        for (; next >= 0 && next != '\n'; next = in.read()) {
            line.write(next);
        }
        return line.toByteArray();
    }
}
