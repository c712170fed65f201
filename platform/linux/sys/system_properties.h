// SPDX-License-Identifier: Apache-2.0
// Android's system properties, off Android: one file per property under /run/properties, whose
// first line is the value. Owns nothing; any thread.
#pragma once

#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the property's value, at most PROP_VALUE_MAX - 1 characters, and its terminator into
// `value` (room for PROP_VALUE_MAX). Returns the value's length; 0 and "" when there is no such
// property. A name with a '/' or a leading '.' is no property's name.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl*): Android's name
int __system_property_get(const char* name, char* value);

#ifdef __cplusplus
}
#endif
