// SPDX-License-Identifier: Apache-2.0
// Who may ask for an update: one row for each way to ask. The library takes from it where a
// caller's images lie, the commands what callers are called. A new caller is an enumerator of
// CallerTypes and a row here.
#ifndef CALLERS_H
#define CALLERS_H

#include <array>
#include <cstddef>
#include <string_view>

#include "fw-update-types.h"

namespace fwcallers {

// The data that goes with a request of a factory's machines.
inline constexpr const char* kFactoryAutomation = "FACTORY_AUTOMATION";

struct Caller {
  CallerTypes type;
  UPDATE_TYPE images;     // where they are taken from
  const char* name;       // on command lines; null: nobody asks for an update so
  const char* fixedData;  // goes with each request; null: the request has its own
  const char* places;     // of the images, in words
};

inline constexpr Caller kCallers[] = {
    {CALLER_FACTORY, UPDATE_TYPE_USB, "factory", nullptr, "a USB drive mounted at /opt/media/USBDriveA"},
    {CALLER_DEBUG, UPDATE_TYPE_EMP, "debug", nullptr, "extension package; USB drive with --data USB"},
    {CALLER_QUERY, UPDATE_TYPE_EMP, nullptr, nullptr, "extension package"},
    {CALLER_USB_PACKAGE, UPDATE_TYPE_EMP, nullptr, nullptr, "extension package"},
    {CALLER_UPGRADE_APP, UPDATE_TYPE_BUILTIN, "factory-automation", kFactoryAutomation,
     "/lib/firmware/ext, with fixed data"},
    {CALLER_UPGRADE_APP, UPDATE_TYPE_BUILTIN, "upgrade-app", nullptr,
     "/lib/firmware/ext (the default caller)"},
    {CALLER_LSM, UPDATE_TYPE_SBOX, "lsm", nullptr, "/opt/usr/share/sbox"},
    {CALLER_RESERVED6, UPDATE_TYPE_BUILTIN, nullptr, nullptr, "/lib/firmware/ext"},
    {CALLER_UPGRADE_EPSOLUTION, UPDATE_TYPE_BUILTIN, "epsolution", nullptr, "/lib/firmware/ext"},
};

inline constexpr const char* kDefaultCaller = "upgrade-app";

// Null when nobody is called so.
constexpr const Caller* findCaller(std::string_view name) {
  for (const Caller& caller : kCallers) {
    if (caller.name != nullptr && name == caller.name) {
      return &caller;
    }
  }
  return nullptr;
}

constexpr std::size_t countTypes() {
  std::size_t count = 0;
  for (const Caller& caller : kCallers) {
    count =
        static_cast<std::size_t>(caller.type) + 1 > count ? static_cast<std::size_t>(caller.type) + 1 : count;
  }
  return count;
}

// By caller type; a table of its own, so that the library has no more of the rows than this.
inline constexpr auto kImages = [] {
  std::array<UPDATE_TYPE, countTypes()> images{};
  for (const Caller& caller : kCallers) {
    images[static_cast<std::size_t>(caller.type)] = caller.images;
  }
  return images;
}();

// Those of callers that have no row are in the extension package.
constexpr UPDATE_TYPE imagesOf(CallerTypes type) {
  const auto index = static_cast<std::size_t>(type);
  return index < kImages.size() ? kImages[index] : UPDATE_TYPE_EMP;
}

}  // namespace fwcallers

#endif
