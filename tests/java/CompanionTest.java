import java.io.IOException;
import uafd.Companion;
import uafd.Companion.Event;
import uafd.Companion.EventType;

/** The Java binding beside the daemon's ends, which the calling test plays. Ends with 1 for a fault. */
public final class CompanionTest {
    private static final int FRAMES = 4800;

    private static void require(boolean holds, String sentence) {
        if (!holds) {
            throw new AssertionError(sentence);
        }
    }

    private static void expectEvent(Companion companion, EventType type, int value)
            throws IOException {
        Event event;
        while ((event = companion.nextEvent()) == null) {
            companion.await();
        }
        require(event.type == type && event.value == value,
                "told " + event.type + " " + event.value + " in place of " + type + " " + value);
    }

    /** The host's sound is heard, the app's is taken. */
    private static void sound(String directory) throws IOException {
        short[] block = new short[2 * Companion.BLOCK_FRAMES];
        short[] heard = new short[2 * 1000];
        java.util.Arrays.fill(block, (short) -5);
        try (Companion companion = new Companion(directory, Companion.SOUND)) {
            require(companion.speakerFd() >= 0 && companion.micFd() >= 0, "no descriptors");
            require(companion.eventsFd() == -1, "a descriptor of what was not opened");
            int frames = 0;
            int blocks = 0;
            boolean echoed = false;
            while (frames < FRAMES || !echoed) {
                if ((companion.await() & Companion.READY_BLOCK) != 0) {
                    blocks += companion.write(block) ? 1 : 0;
                }
                int more = companion.read(heard, 1000);
                for (int i = 0; i < more; ++i) {
                    boolean own = heard[2 * i] == -5 && heard[2 * i + 1] == -5;
                    require(own || heard[2 * i] == 1000 && heard[2 * i + 1] == -1000, "wrong sound");
                    echoed |= own;
                }
                frames += more;
            }
            Companion.Counts counts = companion.counts();
            require(counts.framesRead == frames, counts.framesRead + " frames counted");
            require(counts.blocksTaken == blocks, counts.blocksTaken + " blocks counted");
        }
    }

    /** States are told, settings are sent. */
    private static void messages(String directory) throws IOException {
        try (Companion companion = new Companion(directory, Companion.ALL)) {
            expectEvent(companion, EventType.DAEMON_STATE, 1);
            expectEvent(companion, EventType.USB_STATE, 1);
            expectEvent(companion, EventType.SPEAKER_VOLUME, -1280);
            expectEvent(companion, EventType.MIC_MUTE, 1);
            require(companion.nextEvent() == null, "one event too many");
            require(companion.setSpeakerVolume((short) -2560), "the volume is not taken");
            require(companion.setSpeakerMute(true), "the mute is not taken");
            require(companion.counts().messagesSent == 3, "not 3 messages counted");
            require(companion.counts().events == 4, "not 4 events counted");
        }
    }

    /** What goes wrong comes as an exception, what is lost does not. */
    private static void faults(String directory) throws IOException {
        Companion companion = new Companion(directory, Companion.ALL);
        try {
            new Companion(directory, Companion.EVENTS).close();
            throw new AssertionError("a second app was let in");
        } catch (IOException expected) {
            require(expected.getMessage().equals("Device or resource busy"), expected.getMessage());
        }
        try {
            companion.write(new short[959]);
            throw new AssertionError("a short block was taken");
        } catch (ArrayIndexOutOfBoundsException expected) {
        }
        try {
            companion.read(new short[19], 10);
            throw new AssertionError("more was read than there is room for");
        } catch (IOException expected) {
            require(expected.getMessage().equals("Invalid argument"), expected.getMessage());
        }
        require(!companion.write(new short[960]), "a block was taken by nobody");
        require(!companion.sync(), "a message was taken by nobody");
        require(companion.counts().blocksUnread == 1, "not 1 lost block counted");
        require(companion.counts().messagesFailed == 1, "not 1 lost message counted");
        companion.close();
        companion.close();
        try {
            companion.counts();
            throw new AssertionError("a closed companion counts");
        } catch (IllegalStateException expected) {
        }
    }

    public static void main(String[] arguments) throws IOException {
        switch (arguments[0]) {
            case "sound":
                sound(arguments[1]);
                break;
            case "messages":
                messages(arguments[1]);
                break;
            default:
                faults(arguments[1]);
        }
        System.out.println("good");
    }
}
