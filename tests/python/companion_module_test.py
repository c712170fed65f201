# SPDX-License-Identifier: Apache-2.0
"""Tests the Python module; the program that runs this plays the daemon's ends in the folder FOLDER."""

import array
import errno
import gc
import os
import re
import signal
import threading
import unittest

import uafd_companion as uafd
from uafd_companion import EventType

FOLDER = os.environ["FOLDER"]


class CompanionTest(unittest.TestCase):
    def next_event(self, companion):
        while (event := companion.next_event()) is None:
            companion.wait()
        return event

    def test_sound(self):
        block = array.array("h", [-5] * 2 * uafd.BLOCK_FRAMES).tobytes()
        with uafd.Companion(uafd.SOUND, FOLDER) as companion:
            self.assertGreaterEqual(min(companion.speaker_fd(), companion.mic_fd()), 0)
            self.assertEqual(companion.events_fd(), -1)
            heard, taken, lost = array.array("h"), 0, 0
            while len(heard) < 2 * 4800 or heard.count(-5) == 0:
                if companion.wait() & uafd.READY_BLOCK:
                    is_taken = companion.write(block)
                    taken, lost = taken + is_taken, lost + (not is_taken)
                heard.frombytes(companion.read(1000))
            self.assertLessEqual(set(zip(heard[0::2], heard[1::2])), {(1000, -1000), (-5, -5)})
            counts = companion.counts()
            self.assertEqual(counts.frames_read, len(heard) // 2)
            self.assertEqual(counts.blocks_taken, taken)
            self.assertEqual(counts.blocks_refused + counts.blocks_unread, lost)

    def test_messages(self):
        with uafd.Companion(uafd.ALL, FOLDER) as companion:
            for told in ((EventType.DAEMON_STATE, 1), (EventType.USB_STATE, 1),
                         (EventType.SPEAKER_VOLUME, -1280), (EventType.MIC_MUTE, 1)):
                self.assertEqual(self.next_event(companion), told)
            self.assertIsNone(companion.next_event())
            self.assertTrue(companion.set_speaker_volume(-2560))
            self.assertTrue(companion.set_speaker_mute(True))
            self.assertEqual(companion.counts().messages_sent, 3)
            self.assertEqual(companion.counts().events, 4)
            self.assertEqual(companion.counts().datagrams_bad, 1)

    def test_waits_end(self):
        with uafd.Companion(uafd.EVENTS, FOLDER) as companion:
            self.assertEqual(companion.wait(10), 0)
            companion.wake()
            self.assertEqual(companion.wait(), uafd.READY_WAKE)
            waiter = threading.Thread(target=companion.wait)
            waiter.start()
            companion.wake()
            waiter.join()
            signal.signal(signal.SIGALRM, lambda *_: None)
            signal.setitimer(signal.ITIMER_REAL, 0.05)
            self.assertEqual(companion.wait(), 0)

    def test_faults(self):
        companion = uafd.Companion(uafd.ALL, FOLDER)
        with self.assertRaisesRegex(OSError, "an app has this part open already") as raised:
            uafd.Companion(uafd.EVENTS, FOLDER)
        self.assertEqual(raised.exception.errno, errno.EBUSY)
        with self.assertRaisesRegex(OSError, "an option is not understood"):
            uafd.Companion(uafd.MIC, FOLDER, "no such group")
        with self.assertRaisesRegex(ValueError, "a block has 1920 bytes, not 1919"):
            companion.write(bytes(1919))
        self.assertFalse(companion.write(bytes(1920)))
        self.assertFalse(companion.sync())
        self.assertEqual(companion.counts().blocks_unread, 1)
        self.assertEqual(companion.counts().messages_failed, 1)
        companion.close()
        companion.close()
        with self.assertRaisesRegex(ValueError, "this companion is closed"):
            companion.read()
        with uafd.Companion(uafd.EVENTS, FOLDER) as other:
            with self.assertRaisesRegex(OSError, "this part was not opened"):
                other.read()

    def test_closes_what_is_forgotten(self):
        uafd.Companion(uafd.ALL, FOLDER)
        gc.collect()
        uafd.Companion(uafd.ALL, FOLDER).close()

    def test_options(self):
        with uafd.Companion(uafd.MIC, FOLDER, group="0", mode=0o604) as companion:
            companion.release_daemon()
        self.assertEqual(os.stat(FOLDER + "/usbAudioFifoTx").st_mode & 0o7777, 0o604)
        self.assertTrue(os.path.exists(FOLDER + "/usbAudioFifoRx"))

    def test_header(self):
        """The module repeats the header's names, numbers and orders."""
        with open(os.environ["HEADER"], encoding="utf-8") as file:
            header = file.read()
        self.assertEqual(uafd.version(), re.search('COMPANION_VERSION "(.*)"', header)[1])
        events = re.findall(r"UAFD_([A-Z_]+) = ([0-9]+)", header)
        self.assertEqual([(event.name, str(event.value)) for event in EventType], events)
        self.assertEqual([name for name, _ in uafd.Counts._fields_], re.findall(r"uint64_t (\w+);", header))
        numbers = re.findall(r"#define UAFD_([A-Z_]+) ([0-9]+)U?\b", header)
        self.assertGreater(len(numbers), 8)
        for name, number in numbers:
            self.assertIn(getattr(uafd, name, None), (int(number), None), name)


if __name__ == "__main__":
    unittest.main()
