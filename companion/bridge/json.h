// SPDX-License-Identifier: Apache-2.0
// An object of JSON under construction. One thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace uafd {

// Absent values become null.
class Json {
  public:
    Json& raw(const char* key, const std::string& value) {
        text += (text.empty() ? "\"" : ",\"") + std::string(key) + "\":" + value;
        return *this;
    }
    // An empty text is null. Control characters become spaces.
    Json& word(const char* key, const std::string& value) {
        std::string quoted = "\"";
        for (const char letter : value) {
            quoted += letter == '"' || letter == '\\' ? "\\" : "";
            quoted += static_cast<unsigned char>(letter) < ' ' ? ' ' : letter;
        }
        return raw(key, value.empty() ? "null" : quoted + "\"");
    }
    Json& flag(const char* key, bool value) { return raw(key, value ? "true" : "false"); }
    Json& whole(const char* key, std::optional<int64_t> value) {
        return raw(key, value ? std::to_string(*value) : "null");
    }
    Json& number(const char* key, std::optional<double> value) {
        char digits[32];
        snprintf(digits, sizeof digits, "%.1f", value.value_or(0));
        return raw(key, value ? digits : "null");
    }
    std::string done() const { return "{" + text + "}"; }

  private:
    std::string text;
};

}  // namespace uafd
