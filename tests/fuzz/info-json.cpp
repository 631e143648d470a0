// SPDX-License-Identifier: Apache-2.0
// Fuzz target: "info.json" beside a firmware image, read by the library's decision
// about an update and by fw-pack.
#include <optional>
#include <string>
#include <vector>

#include "fuzz-target.h"
#include "image-information.h"
#include "input-file.h"
#include "library-device.h"

namespace {

constexpr const char* kInformationPath = "/lib/firmware/ext/abc/info.json";
constexpr const char* kImagePath = "/lib/firmware/ext/abc/abc.bin";

// What the library took from the file, as far as it can be seen from outside.
struct Decision {
  bool loaded = false;
  std::optional<std::string> version;  // as the module got it
  unsigned int expectedTime = 0;       // as the record keeps it
};

// The image is empty, so its CRC is 0, and any other one is noticed.
Decision decide() {
  Decision decision;
  FWUpdateSymbol& module = fuzz::boundModule();
  scripted::module(fuzz::kModuleStem).checkVersion = [&](const char* version, int* need) {
    decision.version = version;
    *need = 1;
    return 0;
  };
  decision.loaded = module.loadInformation(kInformationPath);
  const std::vector<std::string> problems = recording::texts();
  fuzz::require(problems.size() == (decision.loaded ? 0 : 1), "a refused file, and no other, is logged once");
  char noData[] = "";
  const int need = module.isNeedUpdate(CALLER_UPGRADE_APP, noData);
  fuzz::require(decision.loaded || need == -1, "a refused file means no update");
  fuzz::require(decision.version.has_value() == (need == 1), "the module decides, and nobody else");
  decision.expectedTime = module.getExpectedUpdateTime();
  return decision;
}

// fw-pack is stricter, but says of nothing "valid" that the library refuses or
// understands in another way.
void requireAgreement(const Decision& decision, const image::Information& stated) {
  fuzz::require(decision.loaded, "what fw-pack calls valid, the library accepts");
  fuzz::require(decision.version.has_value() == (stated.crc == 0), "fw-pack and the library read one CRC");
  if (decision.version) {
    // The module's interface is a C string.
    fuzz::require(*decision.version == stated.version.c_str(), "fw-pack and the library read one version");
    fuzz::require(decision.expectedTime == stated.expectedTime, "fw-pack and the library read one time");
  }
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>& visible) {
  enterLibraryDevice(visible);
  const InputFile emptyImage(kImagePath);
}

bool fuzz::accepts(std::string_view input) {
  static auto& file = *new InputFile(kInformationPath);
  file.fill(input);
  const Decision decision = decide();
  if (const auto stated = image::parseInformation(std::string(input))) {
    requireAgreement(decision, *stated);
  }
  return decision.loaded;
}
