#include "library-device.h"

#include "device-namespace.h"

namespace fuzz {
namespace {

FWUpdateSymbol bind() {
  FWUpdateSymbol symbol(ModuleStem);
  symbol.loadSymbol(ModuleStem);
  return symbol;
}

}  // namespace

void enterLibraryDevice(const std::vector<std::string>& visible) {
  sandbox::enterDevice({"", {}, {}, visible});
  scripted::installModule(ModuleStem);
}

FWUpdateSymbol& boundModule() {
  static auto& symbol = *new FWUpdateSymbol(bind());
  recording::reset();
  scripted::resetModules();
  return symbol;
}

}  // namespace fuzz
