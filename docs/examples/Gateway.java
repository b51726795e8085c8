import com.morvesk.halvo.ipc.Batch;
import com.morvesk.halvo.ipc.Channel;
import com.morvesk.halvo.ipc.FileQueue;
import com.morvesk.halvo.ipc.Marked;
import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.concurrent.ExecutorCompletionService;
import java.util.concurrent.Executors;

/**
 * Receives from a channel, stores in a file queue and forwards to another channel what is stored.
 * Usage: java Gateway KEYFILE FROM QUEUE TO
 *
 * <p>Each message is in one of the three places at any moment: it leaves one by a commit that comes
 * behind the commit of the next. When the gateway dies between the two, the same messages come again,
 * at most a hundred of each step; a receiver that must not take one twice compares what is in them.
 */
public class Gateway {
    private static final Duration SECOND = Duration.ofSeconds(1);
    private static final int AT_ONCE = 100; // messages of a transaction, and no more than TO has slots

    /** Ends with the first failure; whoever started it starts it again. */
    public static void main(String[] args) throws Exception {
        Channel.attach(args[0], Duration.ofMinutes(1));
        FileQueue queue = new FileQueue(args[2]);
        ExecutorCompletionService<Void> work =
                new ExecutorCompletionService<>(Executors.newCachedThreadPool());
        work.submit(() -> receive(args[1], queue));
        work.submit(() -> forward(queue, args[3]));
        try {
            work.take().get();
        } finally {
            System.exit(1);
        }
    }

    private static Void receive(String from, FileQueue queue) throws Exception {
        try (Channel in = Channel.openReader("gateway", from, SECOND)) {
            while (true) {
                try (Marked messages = in.mark(AT_ONCE, SECOND);
                        FileQueue.Writer store = queue.writer()) {
                    for (Channel.Message message : messages) {
                        store.put(stored(message));
                    }
                    store.commit();
                    messages.commit();
                }
            }
        }
    }

    private static Void forward(FileQueue queue, String to) throws Exception {
        try (Channel out = Channel.openWriter("gateway", to, SECOND)) {
            while (true) {
                try (FileQueue.Reader stored = queue.reader(); Batch batch = out.batch()) {
                    byte[] item = stored.poll(SECOND);
                    while (item != null) {
                        int type = ByteBuffer.wrap(item).getShort() & 0xffff;
                        batch.write(type, item, 2, item.length - 2);
                        item = batch.size() < AT_ONCE ? stored.next() : null;
                    }
                    batch.commit(Duration.ofMinutes(10));
                    stored.commit();
                }
            }
        }
    }

    /** As it lies in the queue: its type, then its body. */
    private static byte[] stored(Channel.Message message) {
        return ByteBuffer.allocate(2 + message.body().length)
                .putShort((short) message.type()).put(message.body()).array();
    }
}
