// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the texts that a module writes about itself into the library's
// buffers, its package identifier and its version, with and without a terminator.
// Whatever identifier the library accepts, the platform must accept too.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz-target.h"
#include "library-device.h"
#include "module-names.h"
#include "privileged/privileged-request.h"

namespace {

constexpr std::size_t kBufferSize = 128;

// What a module's buffer holds as a text: 127 characters when it has no terminator.
std::string textIn(std::string_view buffer) {
  return std::string(buffer.substr(0, std::min(buffer.find('\0'), kBufferSize - 1)));
}

bool isLettersAndDigits(const std::string& text) {
  return text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") ==
         std::string::npos;
}

void requirePlatformAgrees(const std::string& identifier) {
  using fwplatform::PrivilegedOperation;
  fuzz::require(fwnames::isPackageName(identifier), "it can be downloaded");
  const std::string directory = "/opt/usr/apps/appbinarymanager/emps/" + identifier;
  const std::string mount =
      "-o ro,loop,nodev,nosuid /opt/usr/apps/appbinarymanager/" + identifier + ".img " + directory;
  std::string refusal;
  fuzz::require(fwplatform::parsePrivilegedRequest(PrivilegedOperation::Mount,
                                                   {mount.c_str(), mount.size() + 1}, refusal)
                    .has_value(),
                "it can be mounted");
  fuzz::require(
      fwplatform::parsePrivilegedRequest(PrivilegedOperation::Umount, directory, refusal).has_value(),
      "it can be unmounted");
}

bool bindsWithIdentifier(std::string_view buffer) {
  fuzz::boundModule();
  scripted::module(fuzz::kModuleStem).writeEMPID = [&](char* out) { buffer.copy(out, buffer.size()); };
  FWUpdateSymbol module(fuzz::kModuleStem);
  const bool bound = module.loadSymbol(fuzz::kModuleStem) == 0;

  const std::string identifier = textIn(buffer);
  const std::size_t emp = identifier.find("emp");
  const bool good = isLettersAndDigits(identifier) && emp != std::string::npos;
  fuzz::require(bound == good, "an identifier is letters and digits with \"emp\" among them");
  fuzz::require(bound == recording::texts().empty(), "what is refused, and nothing else, is logged");
  if (bound) {
    fuzz::require(module.getEMPName() == identifier, "the identifier is kept");
    fuzz::require(module.getFirmwareName() == std::string(identifier).erase(emp, 3), "the firmware's name");
    requirePlatformAgrees(identifier);
  }
  return bound;
}

void requireVersionIsRead(std::string_view buffer) {
  FWUpdateSymbol& module = fuzz::boundModule();
  scripted::module(fuzz::kModuleStem).writeActiveVersion = [&](char* out) {
    buffer.copy(out, buffer.size());
    return 0;
  };
  char version[kBufferSize] = {};
  module.getActiveVersion(version);
  fuzz::require(textIn(buffer) == version, "a version ends within its buffer");
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>& visible) {
  enterLibraryDevice(visible);
}

// The bytes of the one buffer, then those of the other.
bool fuzz::accepts(std::string_view input) {
  const std::string_view rest = input.substr(std::min(input.size(), kBufferSize));
  requireVersionIsRead(rest.substr(0, kBufferSize));
  return bindsWithIdentifier(input.substr(0, kBufferSize));
}
