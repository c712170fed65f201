// SPDX-License-Identifier: Apache-2.0
// The USB host on the wire: the kernel's own usbcore with its sound card for the device on the only
// port, and that device as a program of the host reaches it through usbfs. What fails throws unless
// it says otherwise.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/files.h"

namespace board {

constexpr char kHostPcm[] = "hw:2";  // the host's sound card

// Any thread.
class UsbHost {
  public:
    static bool hasDevice();
    static bool hasCard();
    // True as soon as there is one, or none.
    static bool waitForCard(bool there = true, Ns limit = 2 * kSecond);
    // A file of the device's, without its line end: "speed" gives "480" or "12". Empty without a
    // device.
    static std::string attribute(const std::string& name);
    // Sets the device's configuration; 0 is none.
    static void configure(int configuration);
    // Lets the host suspend a device that nobody uses, which it then does at once; or wakes it.
    static void allowSuspend(bool allow);
};

struct IsoPacket {
    int status;  // 0, or a negative error
    unsigned bytes;
};

// The device in a program's hands. Transfers end after a second. One thread.
class UsbDevice {
  public:
    // Opens the present device.
    UsbDevice();

    // The host resets the device and enumerates it again. Returns 0 or a negative error.
    int reset();
    // Takes interface 0 and sets its alternate setting.
    void claim(int alternate);
    // The bytes moved, or a negative error. Endpoints are addresses as in descriptors.
    int control(uint8_t type, uint8_t request, uint16_t value, uint16_t index, std::string* data);
    int bulk(uint8_t endpoint, std::string* data);
    // One URB of `count` packets with `bytes` each.
    std::vector<IsoPacket> iso(uint8_t endpoint, int count, unsigned bytes);
    // A case of the kernel's usbtest driver, which has to be bound. Returns a negative error when
    // it fails.
    int runTest(unsigned test, unsigned iterations, unsigned length, unsigned vary, unsigned lists);

  private:
    Fd file;
};

}  // namespace board
