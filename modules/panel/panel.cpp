// SPDX-License-Identifier: Apache-2.0
// The module of the panel's timing controller: an ordinary component with slow
// flash memory.
#include "module-entry.h"

fwcomponent::Component& fwcomponent::thisComponent() {
  static Component panel({"panelempfw", "panelfw", /*expectedSeconds=*/120, /*kibPerSecond=*/64});
  return panel;
}

int doUpdate(const char* path, unsigned long value) {
  return fwcomponent::answerUpdate([&] { fwcomponent::thisComponent().updateFromFile(path, value); });
}
