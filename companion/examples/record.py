# SPDX-License-Identifier: Apache-2.0
# Writes what the USB host plays into heard.wav: five seconds. An argument is the FIFOs' folder.
import sys
import wave

import uafd_companion as uafd

with uafd.Companion(uafd.SOUND, *sys.argv[1:]) as host, wave.open("heard.wav", "wb") as file:
    file.setparams((uafd.CHANNELS, 2, uafd.RATE, 0, "NONE", ""))
    while file.tell() < 5 * uafd.RATE:
        host.wait()
        file.writeframes(host.read())
