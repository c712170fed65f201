// SPDX-License-Identifier: Apache-2.0
// The check for a plugged cable that the gadget has not noticed, and the controller's restart.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/system_properties.h>

#include "cable/cable_mon.h"
#include "cable/log_tag.h"
#include "cable/usb_state.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr char kPlugged = '1';

constexpr size_t kCommandBytes = 128;
constexpr char kShellSafe[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_,.:+-";

// Setting the property to its present value makes the platform apply the configuration again, which
// restarts the controller.
void restartController() {
    char value[PROP_VALUE_MAX] = {};
    __system_property_get(kCableConfigProperty, value);
    LOGD(
        "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
        "property: %s",
        value);
    char command[kCommandBytes];
    snprintf(command, sizeof command, "setprop sys.usb.config %s\n", value);
    LOGD("Issue: %s\n", command);
    if (value[strspn(value, kShellSafe)] != '\0') {
        LOGE("not issued: the value holds characters that a shell could act upon\n");
        return;
    }
    // When it fails, the next checks find the fault again.
    // NOLINTNEXTLINE(cert-env33-c): every board maker's shell has setprop, and the value is checked
    [[maybe_unused]] const int result = system(command);
}

}  // namespace

void CableMon::validateConnectionState() {
    FILE* const usbFile = fopen(kCableUsbStatePath, "r");
    FILE* const plugFile = fopen(kCablePlugStatePath, "r");
    char usbLine[kStateLineBytes] = {};
    char plugLine[kStateLineBytes] = {};
    if (usbFile != nullptr && plugFile != nullptr &&
        fgets(usbLine, sizeof usbLine, usbFile) != nullptr &&
        fgets(plugLine, sizeof plugLine, plugFile) != nullptr) {
        classify(usbLine, plugLine);
    }
    if (usbFile != nullptr) {
        fclose(usbFile);
    }
    if (plugFile != nullptr) {
        fclose(plugFile);
    }
    if (plugNoAckCnt >= kCableNoAckChecks) {
        plugNoAckCnt = 0;
        restartController();
    }
}

// Other states do not change the count: the gadget will soon reach one of these two.
void CableMon::classify(const char* usbLine, const char* plugLine) {
    if (beginsWith(usbLine, kUsbStateConfigured)) {
        plugNoAckCnt = 0;
    } else if (beginsWith(usbLine, kUsbStateDisconnected)) {
        plugNoAckCnt = plugLine[0] == kPlugged ? plugNoAckCnt + 1 : 0;
    }
}

}  // namespace uafd
