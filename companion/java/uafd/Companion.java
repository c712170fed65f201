// SPDX-License-Identifier: Apache-2.0
package uafd;

import java.io.IOException;
import java.nio.channels.ClosedChannelException;

/**
 * The companion app's side of uafd, over the C library of the same name: what the USB host plays is
 * read here, what the host records is written here, and volume, mute and state go both ways.
 *
 * <p>Nothing but {@link #await} ever waits. Reading, writing, waiting and taking events may each be
 * done by a thread of its own at the same time; everything else is for any thread at any time.
 * {@link #close}, too: it ends a wait under way and returns when every call of another thread has
 * ended. Whatever else is called then throws {@link ClosedChannelException}, as does the wait, which
 * is how a thread that serves the companion comes to its end.
 */
public final class Companion implements AutoCloseable {
    /** Frames a second, both ways. */
    public static final int RATE = 48000;
    /** Frames of a block, which is 10 ms: two samples each, left first. */
    public static final int BLOCK_FRAMES = 480;

    /** Parts to open, each by one app at a time: a FIFO each, and the socket of the daemon's messages. */
    public static final int SPEAKER = 1;
    public static final int EVENTS = 2;
    public static final int MIC = 4;
    public static final int SOUND = SPEAKER | MIC;
    public static final int ALL = SOUND | EVENTS;

    /** What {@link #await} found: frames to read, an event, the time of the next block, a wake. */
    public static final int READY_SOUND = 1;
    public static final int READY_EVENT = 2;
    public static final int READY_BLOCK = 4;
    public static final int READY_WAKE = 8;

    /**
     * In the order of the C library's types. States and mutes are 0 or 1, volumes signed 16 bits.
     * Every state is 0 at first, and again after the daemon's end.
     */
    public enum EventType {
        USB_STATE, SPEAKER_STATE, MIC_STATE, SPEAKER_VOLUME, MIC_VOLUME, SPEAKER_MUTE, MIC_MUTE,
        DAEMON_STATE
    }

    /** What the daemon told, or the library of the daemon. */
    public static final class Event {
        public final EventType type;
        public final int value;

        Event(EventType type, int value) {
            this.type = type;
            this.value = value;
        }
    }

    /** Since the opening, as in the C library. */
    public static final class Counts {
        public final long framesRead;
        public final long blocksTaken;
        public final long blocksRefused;
        public final long blocksUnread;
        public final long events;
        public final long datagramsBad;
        public final long messagesSent;
        public final long messagesFailed;

        Counts(long[] values) {
            framesRead = values[0];
            blocksTaken = values[1];
            blocksRefused = values[2];
            blocksUnread = values[3];
            events = values[4];
            datagramsBad = values[5];
            messagesSent = values[6];
            messagesFailed = values[7];
        }
    }

    private static final EventType[] EVENT_TYPES = EventType.values();
    private static final int DEFAULT_MODE = 0;

    static {
        System.loadLibrary("uafd_companion_jni");
    }

    private final long handle;
    private final Object lock = new Object(); // of the fields below
    private boolean closed;
    private int calls; // under way: the handle lives as long as they do
    private Counts lastCounts;

    /** Opens everything where the daemon has it. */
    public Companion() throws IOException {
        this(null, ALL);
    }

    /** Opens PARTS in a directory; null is the daemon's. */
    public Companion(String directory, int parts) throws IOException {
        this(directory, parts, null, DEFAULT_MODE);
    }

    /**
     * The same; what is missing and made gets GROUP (by name or number; null is the one that new
     * files get) and MODE (0 is 0660), whatever the umask.
     */
    public Companion(String directory, int parts, String group, int mode) throws IOException {
        long[] opened = new long[1];
        check(nativeOpen(directory, parts, group, mode, opened));
        handle = opened[0];
    }

    /** Of the native library. */
    public static String version() {
        return nativeVersion();
    }

    @Override
    public void close() {
        boolean interrupted = false;
        synchronized (lock) {
            if (closed) {
                return;
            }
            closed = true;
            nativeWake(handle);
            while (calls > 0) {
                try {
                    lock.wait();
                } catch (InterruptedException e) {
                    interrupted = true;
                }
            }
            lastCounts = countsNow();
            nativeClose(handle);
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    /** Descriptors for an event loop, which stay this object's; -1 for what is not open. */
    public int speakerFd() {
        synchronized (lock) {
            return closed ? -1 : nativeSpeakerFd(handle);
        }
    }

    public int micFd() {
        synchronized (lock) {
            return closed ? -1 : nativeMicFd(handle);
        }
    }

    public int eventsFd() {
        synchronized (lock) {
            return closed ? -1 : nativeEventsFd(handle);
        }
    }

    /** Waits until something is ready; returns the sum of what is, 0 after a signal. */
    public int await() throws IOException {
        return await(-1);
    }

    /** The same for no longer than that many milliseconds, after which it returns 0; below 0 is for ever. */
    public int await(int timeoutMs) throws IOException {
        begin();
        int ready;
        try {
            ready = nativeAwait(handle, timeoutMs);
        } finally {
            end();
        }
        synchronized (lock) {
            if (closed) {
                throw new ClosedChannelException();
            }
        }
        return check(ready);
    }

    /** Ends the wait under way, or else the next one. */
    public void wake() {
        synchronized (lock) {
            if (!closed) {
                nativeWake(handle);
            }
        }
    }

    /** Reads up to FRAMES frames into SAMPLES, which must hold them; returns how many. */
    public int read(short[] samples, int frames) throws IOException {
        begin();
        try {
            return check(nativeRead(handle, samples, frames));
        } finally {
            end();
        }
    }

    /** Writes a block; false when it is lost: the FIFO is full, or the daemon does not read. */
    public boolean write(short[] samples) throws IOException {
        begin();
        try {
            return check(nativeWrite(handle, samples)) == 1;
        } finally {
            end();
        }
    }

    /** Asks for the present states; false when the daemon does not take the message. */
    public boolean sync() throws IOException {
        begin();
        try {
            return check(nativeSync(handle)) == 1;
        } finally {
            end();
        }
    }

    public boolean setSpeakerVolume(short volume) throws IOException {
        begin();
        try {
            return check(nativeSetSpeakerVolume(handle, volume)) == 1;
        } finally {
            end();
        }
    }

    public boolean setSpeakerMute(boolean muted) throws IOException {
        begin();
        try {
            return check(nativeSetSpeakerMute(handle, muted)) == 1;
        } finally {
            end();
        }
    }

    /** Takes the oldest event; null when there is none. */
    public Event nextEvent() throws IOException {
        int[] event = new int[2];
        begin();
        try {
            return check(nativeNextEvent(handle, event)) == 1
                    ? new Event(EVENT_TYPES[event[0]], event[1]) : null;
        } finally {
            end();
        }
    }

    /** The last ones, when it is closed. */
    public Counts counts() {
        synchronized (lock) {
            return closed ? lastCounts : countsNow();
        }
    }

    private Counts countsNow() {
        long[] values = new long[8];
        nativeCounts(handle, values);
        return new Counts(values);
    }

    private void begin() throws ClosedChannelException {
        synchronized (lock) {
            if (closed) {
                throw new ClosedChannelException();
            }
            ++calls;
        }
    }

    private void end() {
        synchronized (lock) {
            if (--calls == 0) {
                lock.notifyAll();
            }
        }
    }

    private static int check(int result) throws IOException {
        if (result < 0) {
            throw new IOException(nativeReasonOf(result));
        }
        return result;
    }

    // Results below 0 are negative errno; of what may be lost, 0 is lost and 1 done.
    private static native int nativeOpen(String directory, int parts, String group, int mode,
            long[] handle);
    private static native void nativeClose(long handle);
    private static native int nativeSpeakerFd(long handle);
    private static native int nativeMicFd(long handle);
    private static native int nativeEventsFd(long handle);
    private static native int nativeAwait(long handle, int timeoutMs);
    private static native void nativeWake(long handle);
    private static native int nativeRead(long handle, short[] samples, int frames);
    private static native int nativeWrite(long handle, short[] samples);
    private static native int nativeSync(long handle);
    private static native int nativeSetSpeakerVolume(long handle, short volume);
    private static native int nativeSetSpeakerMute(long handle, boolean muted);
    private static native int nativeNextEvent(long handle, int[] typeAndValue);
    private static native void nativeCounts(long handle, long[] values);
    private static native String nativeReasonOf(int result);
    private static native String nativeVersion();
}
