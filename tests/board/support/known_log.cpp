#include "tests/board/support/known_log.h"

#include <algorithm>
#include <iterator>

namespace board {
namespace {

// As for matches().
constexpr char kSoundLibrary[] = "ALSA lib *";  // its own complaints, beside the log
constexpr const char* kKnown[] = {
    // Start-up and event loop
    "D UAFIFO: use /tmp/usbAudioFifoRx and /tmp/usbAudioFifoTx",
    "D UAFIFO: Fifos observed for /tmp/usbAudioFifoRx after # attempts, /tmp/usbAudioFifoTx after "
    "# attempts",
    "D UAFIFO: read msg: type=#, data=0x#, size=#; state={cardnum:# bindcnt=# bindbad:#}",
    "E UAFIFO: invalid msg: type=#",
    "D UAFIFO: UAC Vexa is enabled, using hw:#",
    "D UAFIFO: UAC Vexa is disabled, bindcnt=#, bindbad=#",
    "E UAFIFO: Audio gadget driver is not ready.",
    "E UAFIFO: Speaker active while USB is not binded, will try binding it now, bindbad=#",
    "E UAFIFO: Mic active while USB is not binded, will try binding it now, bindbad=#",
    // Channels
    "D UAFCH: intfUpdate to #, current state #",
    "E UAFCH: devName not set",
    "D UAFCH: stopDelayCnt = #",
    "E UAFCH: failed to start audio",
    "D UAFCH: UAF channel stopped. Current state is (2)",
    "D UAFCH: UAF channel stopped. Current state is (1)",
    "E UAFCH: ALERT! This should be impossible and can cause inconsistencies in this channel's "
    "state.",
    "D UAFCH: setVolume volume=#, sending: type=0x#, data=0x#",
    "D UAFCH: setMute mute=#, sending: type=0x#, data=0x#",
    // Source
    "D UAFSRC: init SSRS",
    "D UAFSRC: start, opening hw:#",
    "E UAFSRC: start, audio still open, trying to close",
    "E UAFSRC: error at uafStart@#: rc=#",
    "D UAFSRC: enter buffer loop",
    "D UAFSRC: /tmp/usbAudioFifoTx opened buffer size #",
    "D UAFSRC: buffer loopcnt #, fifoRead #",
    "D UAFSRC: buffer loopcnt #, Depth #, Underruns #, Overruns #",
    "D UAFSRC: increased ssrs queue depth",
    "D UAFSRC: closing /tmp/usbAudioFifoTx, failed to read rc=#, expect 1920",
    "D UAFSRC: closing (null), failed to read rc=#, expect 1920",
    "E UAFSRC: failed to open /tmp/usbAudioFifoTx",
    "E UAFSRC: failed to open (null)",
    "D UAFSRC: loopcnt #, pcmWrite #",
    "D UAFSRC: need to kick start",
    "D UAFSRC: timeout0, rc=#",
    "E UAFSRC: clear timeout, pcmStallCnt=#",
    "E UAFSRC: stopping, unexpected write error(*)",
    "E UAFSRC: ALSA xrun recovery failed (*)",
    "E UAFSRC: rc=#",
    "D UAFSRC: stopping buffer thread",
    "D UAFSRC: exit buffer loop, loopcnt=#, fifoRead #",
    "D UAFSRC: stop, close hw:#",
    "D UAFSRC: stop, close (null)",
    "D UAFSRC: exit, loopcnt=#, pcmWrite #",
    // Sink
    "D UAFSNK: start, opening hw:#",
    "E UAFSNK: start, audio still open, trying to close",
    "E UAFSNK: error at uafStart@#: rc=#",
    "D UAFSNK: synch startup ok",
    "E UAFSNK: synch startup failed",
    "D UAFSNK: /tmp/usbAudioFifoRx opened buffer size #",
    "D UAFSNK: loopcnt #, pcmRead #, fifoWrite #",
    "D UAFSNK: too much samples in the buffer, drop samples. (avail=#)",
    "D UAFSNK: closing /tmp/usbAudioFifoRx, failed to write rc=#, expect 960",
    "D UAFSNK: closing (null), failed to write rc=#, expect 960",
    "E UAFSNK: failed to open /tmp/usbAudioFifoRx",
    "E UAFSNK: failed to open (null)",
    "E UAFSNK: handler: 13",
    "D UAFSNK: timeout0, rc=#",
    "D UAFSNK: clear timeout, pcmStallCnt=#",
    "E UAFSNK: stopping, ALSA failed to start: *",
    "E UAFSNK: stopping, unexpected read error",
    "E UAFSNK: ALSA xrun recovery failed (*)",
    "E UAFSNK: rc=#",
    "D UAFSNK: stop, closing hw:#",
    "D UAFSNK: stop, closing /tmp/usbAudioFifoRx",
    "D UAFSNK: stop, closing (null)",
    "D UAFSNK: exit, loopcnt=#, pcmRead #, fifoWrite #",
    // ALSA helpers
    "E UAFSND: error at setHwParams@#: rc=#",
    "E UAFSND: error at setSwParams@#: err=#",
    "D UAFSND: warnning: rate is not accurate, want 48000 Hz, got # Hz",
    "D UAFSND: stream recovery from ...",
    "D UAFSND: xrun_recovery: capture xrun, err #",
    "D UAFSND: xrun_recovery: playback xrun, err #",
    "D UAFSND: suspend...",
    "D UAFSND: overrun...",
    "D UAFSND: underrun...",
    "D UAFSND: ready ",
    "D UAFSND: Can't recovery from suspend, prepare failed: *",
    "D UAFSND: Can't recovery from underrun, prepare failed: *",
    // Messages
    "E UAFIPC: unlink failed err 2, path does not exist ... ignoring",
    "D UAFIPC: rxLoop: starting",
    "D UAFIPC: txLoop: starting",
    "D UAFIPC: app request init state sync up",
    "D UAFIPC: got speaker volume msg: volume=#",
    "D UAFIPC: got speaker volume mute msg: mute=#",
    "E UAFIPC: got unknown msg: type=#, msg: 0x#",
    "E UAFIPC: unexpected msg size: #",
    "E UAFIPC: rxLoop: ioctl failed: <-1:#>",
    "E UAFIPC: queueMsg: overwriting msg: <0x#:0x#> -> <0x#:0x#>",
    "E UAFIPC: sendMsg failed: error: <-1:#>; bytes: 0; attempts: <#:#>; data: <0x#:0x#>",
    // Cable
    "D UAFCBM: Initial USB state is *",
    "D UAFCBM: enter loop",
    "D UAFCBM: recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for "
    "RK-based SoC",
    "D UAFCBM: subsystem: android_usb, action: #",
    "D UAFCBM: subsystem: android_usb, action: 3, usbstate=*",
    "E UAFCBM: usb state is NULL",
    "E UAFCBM: ignoring non-kernel netlink multicast message",
    "D UAFCBM: Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC "
    "with property: *",
    "D UAFCBM: Issue: setprop sys.usb.config *",
};

}  // namespace

bool isKnown(const LogLine& line) {
    if (line.tag.empty()) {
        return matches(line.text, kSoundLibrary);
    }
    const std::string brief = line.brief();
    return std::any_of(std::begin(kKnown), std::end(kKnown),
                       [&](const char* known) { return matches(brief, known); });
}

}  // namespace board
