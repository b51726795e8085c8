import com.morvesk.halvo.ipc.*;
import java.time.Duration;

/** Sends messages in one transaction, takes them in another. Usage: java Hello KEYFILE CHANNEL */
public class Hello {
    public static void main(String[] args) throws Exception {
        Duration second = Duration.ofSeconds(1);
        Channel.attach(args[0], second); // starts the library and its timeout monitor
        try (Channel out = Channel.openWriter("hello", args[1], second); Batch batch = out.batch()) {
            batch.write(7, "Hello, gateway".getBytes("UTF-8"));
            batch.commit(second); // without it nothing is written
        }
        try (Channel in = Channel.openReader("hello", args[1], second);
                Marked messages = in.mark(100, second)) {
            for (Channel.Message message : messages)
                System.out.println(message.type() + ": " + new String(message.body(), "UTF-8"));
            messages.commit(); // without it they are read again
        }
    }
}
