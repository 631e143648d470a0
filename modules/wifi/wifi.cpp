// SPDX-License-Identifier: Apache-2.0
// The module of the wireless network adapter: an ordinary component.
#include "module-entry.h"

fwcomponent::Component& fwcomponent::thisComponent() {
  static Component wifi({"wifiempfw", "wififw", /*expectedSeconds=*/90, /*kibPerSecond=*/128});
  return wifi;
}

int doUpdate(const char* path, unsigned long value) {
  return fwcomponent::answerUpdate([&] { fwcomponent::thisComponent().updateFromFile(path, value); });
}
