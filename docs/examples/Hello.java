import com.morvesk.halvo.ipc.Channel;
import java.time.Duration;

/** Sends a message and reads it back. Usage: java Hello KEYFILE CHANNEL */
public class Hello {
    public static void main(String[] args) throws Exception {
        Channel.attach(args[0]); // starts the library and its timeout monitor
        Duration second = Duration.ofSeconds(1);
        try (Channel out = Channel.openWriter("hello", args[1], second);
                Channel in = Channel.openReader("hello", args[1], second)) {
            out.write(7, "Hello, gateway".getBytes("UTF-8"), second);
            Channel.Message message = in.read(second);
            System.out.println(message.type() + ": " + new String(message.body(), "UTF-8"));
        }
    }
}
