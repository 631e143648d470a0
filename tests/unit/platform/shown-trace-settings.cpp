// SPDX-License-Identifier: Apache-2.0
// Prints which settings of traces it has.
#include <iostream>

#include "trace/trace-settings.h"

int main() {
  const fwplatform::trace::Settings settings = fwplatform::trace::settingsFromEnvironment();
  std::cout << settings.directory << " " << settings.threads << "\n";
}
