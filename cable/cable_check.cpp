// SPDX-License-Identifier: Apache-2.0
// The check for a plugged cable that the gadget does not notice, and its remedy.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/system_properties.h>

#include "cable/cable_mon.h"
#include "cable/log_tag.h"
#include "cable/usb_state.h"
#include "platform/log.h"

namespace {

constexpr char PLUGGED = '1';

constexpr size_t COMMAND_BYTES = 128;
constexpr char SHELL_SAFE[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_,.:+-";

// Setting the property to the value that it has makes the platform apply the configuration again,
// which restarts the controller.
void restartController() {
    char value[PROP_VALUE_MAX] = {};
    __system_property_get(CABLE_CONFIG_PROPERTY, value);
    LOGD(
        "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
        "property: %s",
        value);
    char command[COMMAND_BYTES];
    snprintf(command, sizeof command, "setprop sys.usb.config %s\n", value);
    LOGD("Issue: %s\n", command);
    if (value[strspn(value, SHELL_SAFE)] != '\0') {
        LOGE("not issued: the value holds characters that a shell could act upon\n");
        return;
    }
    // When it fails, the next checks find the fault again.
    // NOLINTNEXTLINE(cert-env33-c): every board maker's shell has setprop, and the value is checked
    [[maybe_unused]] const int result = system(command);
}

}  // namespace

void CableMon::validateConnectionState() {
    FILE* const usbFile = fopen(CABLE_USB_STATE_PATH, "r");
    FILE* const plugFile = fopen(CABLE_PLUG_STATE_PATH, "r");
    char usbLine[STATE_LINE_BYTES] = {};
    char plugLine[STATE_LINE_BYTES] = {};
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
    if (plugNoAckCnt >= CABLE_NO_ACK_CHECKS) {
        plugNoAckCnt = 0;
        restartController();
    }
}

// Other states leave the count alone: the gadget is on its way to one of the two.
void CableMon::classify(const char* usbLine, const char* plugLine) {
    if (beginsWith(usbLine, USB_STATE_CONFIGURED)) {
        plugNoAckCnt = 0;
    } else if (beginsWith(usbLine, USB_STATE_DISCONNECTED)) {
        plugNoAckCnt = plugLine[0] == PLUGGED ? plugNoAckCnt + 1 : 0;
    }
}
