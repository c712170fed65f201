// SPDX-License-Identifier: Apache-2.0
// Where the daemon and the companion app meet: two FIFOs for sound, two datagram sockets for
// messages. All four are named from the app's side, as their files are: the daemon writes and sends
// to RX, reads and receives from TX.
#pragma once

namespace uafd {

// Interleaved stereo, signed 16-bit, 48 kHz.
constexpr char kFifoRxPath[] = "/tmp/usbAudioFifoRx";  // the sink writes it
constexpr char kFifoTxPath[] = "/tmp/usbAudioFifoTx";  // the source reads it

// One UsbAudioMsgT a datagram.
constexpr char kIpcRxPath[] = "/tmp/usbAudioUdsIpcRx";  // the app's socket
constexpr char kIpcTxPath[] = "/tmp/usbAudioUdsIpcTx";  // the daemon's socket

}  // namespace uafd
