package uafd;

import java.io.IOException;

/**
 * The companion app's side of uafd, over the C library of the same name: what the USB host plays is
 * read here, what the host records is written here, and volume, mute and state go both ways.
 *
 * <p>Nothing but {@link #await} ever waits. Reading, writing and messages (send, set, nextEvent) may
 * each be done by a thread of its own at the same time; everything else by one thread, and closing
 * when the others are done.
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

    /** What {@link #await} found: frames to read, an event, the time of the next block. */
    public static final int READY_SOUND = 1;
    public static final int READY_EVENT = 2;
    public static final int READY_BLOCK = 4;

    /** In the order of the messages' types. States and mutes are 0 or 1, volumes signed 16 bits. */
    public enum EventType {
        USB_STATE, SPEAKER_STATE, MIC_STATE, SPEAKER_VOLUME, MIC_VOLUME, SPEAKER_MUTE, MIC_MUTE,
        DAEMON_STATE
    }

    /** What the daemon told. */
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

    static {
        System.loadLibrary("uafd_companion_jni");
    }

    private long handle;

    /** Opens everything where the daemon has it. */
    public Companion() throws IOException {
        this(null, ALL);
    }

    /** Opens PARTS in a directory; null is the daemon's. */
    public Companion(String directory, int parts) throws IOException {
        long[] opened = new long[1];
        check(nativeOpen(directory, parts, opened));
        handle = opened[0];
    }

    @Override
    public void close() {
        if (handle != 0) {
            nativeClose(handle);
            handle = 0;
        }
    }

    /** Descriptors for an event loop, which stay this object's; -1 for what was not opened. */
    public int speakerFd() {
        return nativeSpeakerFd(open());
    }

    public int micFd() {
        return nativeMicFd(open());
    }

    public int eventsFd() {
        return nativeEventsFd(open());
    }

    /** Waits until one of the three is ready; returns their sum, 0 after a signal. */
    public int await() throws IOException {
        return check(nativeAwait(open()));
    }

    /** Reads up to FRAMES frames into SAMPLES, which must hold them; returns how many. */
    public int read(short[] samples, int frames) throws IOException {
        return check(nativeRead(open(), samples, frames));
    }

    /** Writes a block; false when it is lost: the FIFO is full, or the daemon does not read. */
    public boolean write(short[] samples) throws IOException {
        return check(nativeWrite(open(), samples)) == 1;
    }

    /** Asks for the present states; false when the daemon does not take the message. */
    public boolean sync() throws IOException {
        return check(nativeSync(open())) == 1;
    }

    public boolean setSpeakerVolume(short volume) throws IOException {
        return check(nativeSetSpeakerVolume(open(), volume)) == 1;
    }

    public boolean setSpeakerMute(boolean muted) throws IOException {
        return check(nativeSetSpeakerMute(open(), muted)) == 1;
    }

    /** Takes the oldest event; null when there is none. */
    public Event nextEvent() throws IOException {
        int[] event = new int[2];
        return check(nativeNextEvent(open(), event)) == 1
                ? new Event(EVENT_TYPES[event[0]], event[1]) : null;
    }

    public Counts counts() {
        long[] values = new long[8];
        nativeCounts(open(), values);
        return new Counts(values);
    }

    private long open() {
        if (handle == 0) {
            throw new IllegalStateException("the companion is closed");
        }
        return handle;
    }

    private static int check(int result) throws IOException {
        if (result < 0) {
            throw new IOException(nativeReasonOf(result));
        }
        return result;
    }

    // Results below 0 are negative errno; of what may be lost, 0 is lost and 1 done.
    private static native int nativeOpen(String directory, int parts, long[] handle);
    private static native void nativeClose(long handle);
    private static native int nativeSpeakerFd(long handle);
    private static native int nativeMicFd(long handle);
    private static native int nativeEventsFd(long handle);
    private static native int nativeAwait(long handle);
    private static native int nativeRead(long handle, short[] samples, int frames);
    private static native int nativeWrite(long handle, short[] samples);
    private static native int nativeSync(long handle);
    private static native int nativeSetSpeakerVolume(long handle, short volume);
    private static native int nativeSetSpeakerMute(long handle, boolean muted);
    private static native int nativeNextEvent(long handle, int[] typeAndValue);
    private static native void nativeCounts(long handle, long[] values);
    private static native String nativeReasonOf(int result);
}
