// SPDX-License-Identifier: Apache-2.0
// The module of the broadcast tuner: an ordinary component, whose firmware comes
// as an image file or in a USB package.
#include "module-entry.h"

fwcomponent::Component& fwcomponent::thisComponent() {
  static Component tuner({"tunerempfw", "tunerfw", /*expectedSeconds=*/60, /*kibPerSecond=*/256});
  return tuner;
}

int doUpdate(const char* path, unsigned long value) {
  return fwcomponent::answerUpdate([&] { fwcomponent::thisComponent().updateFromFile(path, value); });
}
