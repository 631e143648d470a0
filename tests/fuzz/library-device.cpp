// SPDX-License-Identifier: Apache-2.0
#include "library-device.h"

#include "device-namespace.h"

namespace fuzz {
namespace {

FWUpdateSymbol bind() {
  FWUpdateSymbol symbol(kModuleStem);
  symbol.loadSymbol(kModuleStem);
  return symbol;
}

}  // namespace

void enterLibraryDevice(const std::vector<std::string>& visible) {
  sandbox::enterDevice({"", {}, {}, visible});
  scripted::installModule(kModuleStem);
}

FWUpdateSymbol& boundModule() {
  static auto& symbol = *new FWUpdateSymbol(bind());
  recording::reset();
  scripted::resetModules();
  return symbol;
}

}  // namespace fuzz
