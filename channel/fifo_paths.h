// SPDX-License-Identifier: Apache-2.0
// The companion app's two FIFOs, named from the app's side: interleaved stereo, signed 16-bit, 48
// kHz.
#pragma once

constexpr char FIFO_RX_PATH[] = "/tmp/usbAudioFifoRx";  // the app receives: the sink writes it
constexpr char FIFO_TX_PATH[] = "/tmp/usbAudioFifoTx";  // the app transmits: the source reads it
