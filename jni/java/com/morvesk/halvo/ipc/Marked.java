package com.morvesk.halvo.ipc;

import java.nio.ByteBuffer;
import java.util.Iterator;
import java.util.NoSuchElementException;

/**
 * Messages that are taken together: a transaction of a reading {@link Channel}.
 *
 * <pre>{@code
 * try (Marked messages = in.mark(100, Duration.ofSeconds(1))) {
 *     for (Channel.Message message : messages) {
 *         handle(message);
 *     }
 *     messages.commit();   // without it they are read again
 * }
 * }</pre>
 *
 * <p>Until the commit the messages stay in the channel, and the end reads nothing else: another
 * read in the same thread is an {@link IllegalStateException}, other threads wait. When the process
 * dies before the commit, whoever opens the end next reads them again, all of them; when it dies in
 * the middle of a commit, those that it had not come to. None is lost, and none that was committed
 * comes again.
 */
public final class Marked implements Iterable<Channel.Message>, AutoCloseable {
    private final ChannelEnd end;
    private final Thread owner;
    private final byte[] slots; // each message at the place of its slot
    private final int slotSize;
    private int count;
    private int committed;
    private boolean closed;

    Marked(ChannelEnd end, byte[] slots, int slotSize, Thread owner) {
        this.end = end;
        this.slots = slots;
        this.slotSize = slotSize;
        this.owner = owner;
    }

    /** Marks messages; as {@link ChannelCalls#mark}. Within the end's turn. */
    long begin(ByteBuffer cell, int most, int millis) {
        int marked = ChannelCalls.mark(cell, end.number, most, slots, millis);
        if (marked > 0) {
            count = marked;
            end.hold(this);
        }
        return marked;
    }

    /** Throws when it is this thread that holds the end. */
    void refuseMine() {
        if (owner == Thread.currentThread()) {
            throw new IllegalStateException(
                    "the marked messages of " + end.name + " are not committed");
        }
    }

    /**
     * The number of messages that are not yet committed.
     *
     * @return their number; 0 when none came in time
     */
    public int size() {
        return count - committed;
    }

    /**
     * The messages that are not yet committed, the oldest first.
     *
     * @return an iterator that removes nothing
     */
    @Override
    public Iterator<Channel.Message> iterator() {
        return new Iterator<Channel.Message>() {
            private int next = committed;

            @Override
            public boolean hasNext() {
                return next < count;
            }

            @Override
            public Channel.Message next() {
                if (next >= count) {
                    throw new NoSuchElementException();
                }
                requireOpen();
                return Channel.Message.ofSlot(slots, slotSize * next++, slotSize);
            }
        };
    }

    /**
     * Releases all messages.
     *
     * @throws HalvoException when the end was lost; they are read again then
     */
    public void commit() throws HalvoException {
        if (size() > 0) {
            commit(size());
        }
    }

    /**
     * Releases the first messages. The end is free for other reads when none is left.
     *
     * @param n how many, 1 to {@link #size}
     * @throws HalvoException as {@link #commit()}
     */
    public void commit(int n) throws HalvoException {
        commit(n, false);
    }

    /**
     * Releases the first messages and counts them as errors of the channel.
     *
     * @param n how many, 1 to {@link #size}
     * @throws HalvoException as {@link #commit()}
     */
    public void commitWithErrors(int n) throws HalvoException {
        commit(n, true);
    }

    private void commit(int n, boolean errors) throws HalvoException {
        requireOpen();
        if (n < 1 || n > size()) {
            throw new IllegalArgumentException(n + " of " + size() + " marked messages");
        }
        int released = end.onMarked(this, n == size(), (cell, millis) -> release(n, errors));
        if (released >= 0) {
            committed += released;
        }
        if (released != n) {
            throw end.failure("commit what was read from",
                    released < 0 ? released : IPCFunctions.ESMS_NOTARGET);
        }
    }

    /** Hands each message to a handler, and commits those that it has handled: their number. */
    <X extends Exception> int handle(Channel.Handler<? extends X> handler)
            throws HalvoException, X {
        int handled = 0;
        try {
            for (Channel.Message message : this) {
                handler.handle(message);
                handled++;
            }
        } finally {
            if (handled > 0) {
                commit(handled);
            }
        }
        return handled;
    }

    /** The native counts the errors of a commit once for each message. */
    private int release(int n, boolean errors) {
        if (!errors) {
            return IPCFunctions.readCommit(end.number, n, false);
        }
        for (int i = 0; i < n; i++) {
            int released = IPCFunctions.readCommit(end.number, 1, true);
            if (released != 1) {
                return i > 0 ? i : released;
            }
        }
        return n;
    }

    /** Hands the messages that were not committed back, to be read again. */
    @Override
    public void close() {
        if (!closed && size() > 0) {
            closed = true;
            try {
                end.onMarked(this, true, (cell, millis) -> IPCFunctions.readRollback(end.number));
            } catch (IllegalStateException e) {
                return; // the channel was closed meanwhile, which has done it
            }
        }
        closed = true;
    }

    private void requireOpen() {
        if (closed) {
            throw new IllegalStateException("the marked messages of " + end.name + " are closed");
        }
    }
}
