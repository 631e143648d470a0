// SPDX-License-Identifier: Apache-2.0
// Facts about the device.
#ifndef PLATFORM_SYSTEM_INFO_H
#define PLATFORM_SYSTEM_INFO_H

// Key of the software version text, of the form "model-version": the text before
// its last "-" names the device's software model.
constexpr int SYSTEM_INFO_SOFTWARE_VERSION = 128;

// Stores the value of a key as a text that the caller releases with free().
// 0 on success; else a negative errno value with *value untouched.
extern "C" __attribute__((visibility("default"))) int system_info_get_value_string(int key, char** value);

#endif
