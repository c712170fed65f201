// SPDX-License-Identifier: Apache-2.0
import java.io.IOException;
import java.nio.channels.ClosedChannelException;
import uafd.Companion;
import uafd.Companion.Event;
import uafd.Companion.EventType;

/** Tests the Java binding; the calling test plays the daemon's ends. Exits with 1 after a fault. */
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
                "got " + event.type + " " + event.value + " instead of " + type + " " + value);
    }

    /** Reads the host's sound and writes the app's. */
    private static void sound(String directory) throws IOException {
        short[] block = new short[2 * Companion.BLOCK_FRAMES];
        short[] heard = new short[2 * 1000];
        java.util.Arrays.fill(block, (short) -5);
        try (Companion companion = new Companion(directory, Companion.SOUND)) {
            require(companion.speakerFd() >= 0 && companion.micFd() >= 0, "no descriptors");
            require(companion.eventsFd() == -1, "a descriptor of an unopened part");
            int frames = 0;
            int blocks = 0;
            int lost = 0;
            boolean echoed = false;
            while (frames < FRAMES || !echoed) {
                if ((companion.await() & Companion.READY_BLOCK) != 0) {
                    boolean taken = companion.write(block);
                    blocks += taken ? 1 : 0;
                    lost += taken ? 0 : 1;
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
            require(counts.blocksRefused + counts.blocksUnread == lost, lost + " blocks not counted");
        }
    }

    /** Receives states and sends settings. */
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
            require(companion.counts().datagramsBad == 1, "not 1 bad datagram counted");
        }
    }

    /** Ends waits by a timeout, by a wake and by a close: one during the close and one after it. */
    private static void endings(String directory) throws Exception {
        Companion companion = new Companion(directory, Companion.EVENTS);
        expectEvent(companion, EventType.DAEMON_STATE, 1);
        expectEvent(companion, EventType.USB_STATE, 1);
        require(companion.await(20) == 0, "something is ready");
        companion.wake();
        require(companion.await() == Companion.READY_WAKE, "the wake is not reported");
        Throwable[] end = new Throwable[1];
        Thread waiter = new Thread(() -> {
            try {
                end[0] = new AssertionError("a wait that returned " + companion.await());
            } catch (Throwable thrown) {
                end[0] = thrown;
            }
        });
        waiter.start();
        while (!inside(waiter, "nativeAwait")) {
            Thread.sleep(1);
        }
        companion.close();
        require(!inside(waiter, "nativeAwait"), "closed during a wait");
        waiter.join();
        require(end[0] instanceof ClosedChannelException, "the thread ended with " + end[0]);
        try {
            companion.await();
            throw new AssertionError("a closed companion waits");
        } catch (ClosedChannelException expected) {
        }
    }

    private static boolean inside(Thread thread, String method) {
        StackTraceElement[] stack = thread.getStackTrace();
        return stack.length > 0 && stack[0].getMethodName().equals(method);
    }

    /** Threads make calls during a close: each call does its work or reports that it is closed. */
    private static void races(String directory) throws Exception {
        for (int round = 0; round < 30; ++round) {
            Companion companion = new Companion(directory, Companion.ALL);
            Throwable[] ends = new Throwable[4];
            Thread[] threads = new Thread[ends.length];
            for (int i = 0; i < threads.length; ++i) {
                final int job = i;
                threads[i] = new Thread(() -> {
                    short[] samples = new short[2 * Companion.BLOCK_FRAMES];
                    try {
                        while (true) {
                            switch (job) {
                                case 0: companion.await(); break;
                                case 1: companion.read(samples, 100); break;
                                case 2: companion.write(samples); break;
                                default: companion.setSpeakerMute(true);
                            }
                        }
                    } catch (Throwable thrown) {
                        ends[job] = thrown;
                    }
                });
                threads[i].start();
            }
            Thread.sleep(round % 5);
            companion.close();
            for (int i = 0; i < threads.length; ++i) {
                threads[i].join();
                require(ends[i] instanceof ClosedChannelException, i + " ended with " + ends[i]);
            }
        }
    }

    /** New files have the requested group and mode. */
    private static void options(String directory) throws IOException {
        try (Companion companion = new Companion(directory, Companion.MIC, "0", 0604)) {
            require(companion.micFd() >= 0 && companion.speakerFd() == -1, "the wrong part");
        }
        require(Companion.version().equals("1.1.0"), Companion.version());
        expectRefusal(directory, Companion.MIC, "no such group", "an option is not understood");
    }

    private static void expectRefusal(String directory, int parts, String group, String reason) {
        try {
            new Companion(directory, parts, group, 0).close();
            throw new AssertionError("it was opened, instead of: " + reason);
        } catch (IOException expected) {
            require(expected.getMessage().equals(reason), expected.getMessage());
        }
    }

    /** Errors are thrown as exceptions; lost blocks and messages are only counted. */
    private static void faults(String directory) throws IOException {
        Companion companion = new Companion(directory, Companion.ALL);
        expectRefusal(directory, Companion.EVENTS, null, "an app has this part open already");
        try {
            companion.write(new short[959]);
            throw new AssertionError("a short block was taken");
        } catch (ArrayIndexOutOfBoundsException expected) {
        }
        try {
            companion.read(new short[19], 10);
            throw new AssertionError("more was read than there is room for");
        } catch (IOException expected) {
            require(expected.getMessage().equals("an option is not understood"), expected.getMessage());
        }
        require(!companion.write(new short[960]), "a block was taken by nobody");
        require(!companion.sync(), "a message was taken by nobody");
        require(companion.counts().blocksUnread == 1, "not 1 lost block counted");
        require(companion.counts().messagesFailed == 1, "not 1 lost message counted");
        companion.close();
        companion.close();
        companion.wake();
        require(companion.counts() == companion.counts() && companion.counts().blocksUnread == 1,
                "the last counts are lost");
        require(companion.micFd() == -1, "a descriptor of a closed companion");
        try {
            companion.sync();
            throw new AssertionError("a closed companion sends");
        } catch (ClosedChannelException expected) {
        }
    }

    public static void main(String[] arguments) throws Exception {
        switch (arguments[0]) {
            case "sound":
                sound(arguments[1]);
                break;
            case "messages":
                messages(arguments[1]);
                break;
            case "endings":
                endings(arguments[1]);
                break;
            case "races":
                races(arguments[1]);
                break;
            case "options":
                options(arguments[1]);
                break;
            default:
                faults(arguments[1]);
        }
        System.out.println("good");
    }
}
