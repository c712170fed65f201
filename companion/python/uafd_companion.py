# SPDX-License-Identifier: Apache-2.0
"""The companion app's side of uafd, over the C library of the same name, whose header uafd_companion.h
describes every call: read what the USB host plays, write what it records, exchange volume, mute and state.

Results below 0 are raised as OSError. Nothing but wait() waits. Reading, writing, waiting and taking
events may each be done by a thread of its own; close only when every other call has returned.
"""

import ctypes
import enum
from typing import NamedTuple

RATE, CHANNELS, BLOCK_FRAMES = 48000, 2, 480  # a frame is two samples of 16 bits, left first: 4 bytes
SPEAKER, EVENTS, MIC, SOUND, ALL = 1, 2, 4, 5, 7  # parts to open, each by one app at a time
READY_SOUND, READY_EVENT, READY_BLOCK, READY_WAKE = 1, 2, 4, 8  # what wait() found, added up

_FRAME_BYTES = 4
_LOST = {-11, -32, -111}  # EAGAIN, EPIPE, ECONNREFUSED
_library = ctypes.CDLL("libuafd_companion.so.1")
_library.uafd_companion_error_text.restype = _library.uafd_companion_version.restype = ctypes.c_char_p
_library.uafd_companion_wake.restype = _library.uafd_companion_close.restype = None

EventType = enum.IntEnum("EventType", "USB_STATE SPEAKER_STATE MIC_STATE SPEAKER_VOLUME MIC_VOLUME"
                         " SPEAKER_MUTE MIC_MUTE DAEMON_STATE", start=0)


class Event(NamedTuple):
    """What the daemon told, or the library of the daemon: a state or mute, 0 or 1, or a volume."""
    type: EventType
    value: int


class Counts(ctypes.Structure):
    """Since the opening."""
    _fields_ = [(name, ctypes.c_uint64) for name in (
        "frames_read", "blocks_taken", "blocks_refused", "blocks_unread", "events", "datagrams_bad",
        "messages_sent", "messages_failed")]


class _Options(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("directory", ctypes.c_char_p), ("parts", ctypes.c_uint),
                ("mode", ctypes.c_uint), ("group", ctypes.c_char_p)]


def version():
    """Of the C library."""
    return _library.uafd_companion_version().decode()


class Companion:
    """Opens PARTS in a directory (None: the daemon's). What is missing is made with GROUP, by name or
    number, and MODE (0: 0660), whatever the umask."""

    def __init__(self, parts=ALL, directory=None, group=None, mode=0):
        self._handle = ctypes.c_void_p()
        encoded = [None if text is None else str(text).encode() for text in (directory, group)]
        options = _Options(ctypes.sizeof(_Options), encoded[0], parts, mode, encoded[1])
        self._check(_library.uafd_companion_open_with(ctypes.byref(options), ctypes.byref(self._handle)))

    def close(self):
        _library.uafd_companion_close(self._handle)
        self._handle = ctypes.c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    __del__ = close

    def wait(self, timeout_ms=-1):
        """Returns the sum of what is ready; 0 after the timeout (below 0: none) or a signal."""
        result = self._call("wait_for", timeout_ms)
        return 0 if result == -4 else self._check(result)  # EINTR

    def wake(self):
        """Ends the present wait, or if there is none the next one."""
        self._call("wake")

    def release_daemon(self):
        """Lets a daemon start that waits for both FIFOs; for an app that opened one of them."""
        self._check(self._call("release_daemon"))

    def speaker_fd(self):
        return self._call("speaker_fd")

    def mic_fd(self):
        return self._call("mic_fd")

    def events_fd(self):
        return self._call("events_fd")

    def read(self, frames=BLOCK_FRAMES):
        """Up to so many frames that the host played, as bytes; empty when there are none at present."""
        samples = ctypes.create_string_buffer(frames * _FRAME_BYTES)
        got = self._check(self._call("read", samples, ctypes.c_size_t(frames)))
        return samples.raw[:got * _FRAME_BYTES]

    def write(self, block):
        """Writes a block of BLOCK_FRAMES frames; False when it is lost: the daemon does not take it."""
        if len(block) != BLOCK_FRAMES * _FRAME_BYTES:
            raise ValueError(f"a block has {BLOCK_FRAMES * _FRAME_BYTES} bytes, not {len(block)}")
        return self._done(self._call("write", bytes(block)))

    def next_event(self):
        """The oldest event, or None."""
        event = (ctypes.c_int32 * 2)()
        return Event(EventType(event[0]), event[1]) if self._check(self._call("next_event", event)) else None

    def sync(self):
        """Asks for the present states; like the settings, False when the daemon does not take the message."""
        return self._done(self._call("sync"))

    def set_speaker_volume(self, volume):
        return self._done(self._call("set_speaker_volume", ctypes.c_int16(volume)))

    def set_speaker_mute(self, muted):
        return self._done(self._call("set_speaker_mute", int(bool(muted))))

    def counts(self):
        counts = Counts()
        self._call("counts", ctypes.byref(counts))
        return counts

    def _call(self, name, *arguments):
        if not self._handle:
            raise ValueError("this companion is closed")
        return getattr(_library, "uafd_companion_" + name)(self._handle, *arguments)

    def _done(self, result):
        return result not in _LOST and self._check(result) == 0

    @staticmethod
    def _check(result):
        if result < 0:
            raise OSError(-result, _library.uafd_companion_error_text(result).decode())
        return result
