// SPDX-License-Identifier: Apache-2.0
#include "tests/unit/alsa_config.h"

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace uafd {
namespace {

std::string messages;

void keep(const char* /*file*/, int /*line*/, const char* /*function*/, int /*error*/,
          const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    messages += std::string(text) + "\n";
}

}  // namespace

AlsaConfig::AlsaConfig(const std::string& more) {
    std::stringstream text;
    text << std::ifstream(ALSA_CONF).rdbuf() << "pcm_type.uafd.lib \"" ALSA_PCM_PLUGIN "\"\n"
         << "ctl_type.uafd.lib \"" ALSA_CTL_PLUGIN "\"\n"
         << more;
    EXPECT_EQ(snd_config_load_string(&top, text.str().c_str(), 0), 0) << text.str();
    messages.clear();
    snd_lib_error_set_handler(keep);
}

AlsaConfig::~AlsaConfig() {
    snd_lib_error_set_handler(nullptr);
    snd_config_delete(top);
}

const std::string& AlsaConfig::said() {
    return messages;
}

}  // namespace uafd
