// SPDX-License-Identifier: Apache-2.0
// Fuzz target: an encrypted USB package, as the library lists and applies it. No
// verifier is installed, so every file gets as far as the cipher. What must come out
// is computed a second time, with OpenSSL and the whole file at once.
#include "../support/usb-package.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "fuzz-target.h"
#include "fw-update-cipher.h"
#include "input-file.h"
#include "library-device.h"

namespace {

constexpr const char* kFolder = "/tmp/usb/";
constexpr const char* kPackagePath = "/tmp/usb/abc.bin";
constexpr std::size_t kSmallestPackage = usb::kIvSize + usb::kVersionSize + usb::kTrailerSize;

// What the module was given.
struct Given {
  std::optional<std::string> version;
  std::optional<std::string> image;
};

// The library's buffer, which it leaves to its caller.
void releasePlaintext() {
  std::free(cipher_buf_all);
  cipher_buf_all = nullptr;
}

FWUpdateSymbol& moduleThatTells(Given& given) {
  FWUpdateSymbol& module = fuzz::boundModule();
  scripted::Module& script = scripted::module(fuzz::kModuleStem);
  script.checkVersion = [&](const char* version, int* need) {
    given.version = version;
    *need = 1;
    return 0;
  };
  script.doUpdateDecryption = [&](const unsigned char* data, int length) {
    fuzz::require(length >= 0, "an image has a length");
    given.image.emplace(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    return 0;
  };
  return module;
}

// The version block's text, as a module reads it. Bytes that are not there are zero.
std::string versionIn(const std::string& plaintext) {
  const std::string block = plaintext.substr(0, usb::kVersionSize);
  return block.substr(0, block.find('\0'));
}

// Listing processes 16 bytes more than applying does.
std::string decrypted(std::string_view package, std::size_t more) {
  const std::string iv(package.substr(0, usb::kIvSize));
  const std::size_t limit = package.size() - usb::kIvSize - usb::kTrailerSize + more;
  return usb::decrypt(std::string(package.substr(usb::kIvSize, limit)), usb::key(), iv);
}

bool list(std::string_view package) {
  Given given;
  const int need = moduleThatTells(given).getNeedUpdateList(usb::bytesOf(usb::key()), kFolder);
  releasePlaintext();
  const bool listed = need == 1;
  fuzz::require(listed == (package.size() >= kSmallestPackage), "a package of a package's size is listed");
  fuzz::require(listed == given.version.has_value(), "the module is asked about what is listed");
  if (listed) {
    fuzz::require(*given.version == versionIn(decrypted(package, usb::kIvSize)), "the version is listed");
  }
  return listed;
}

bool apply(std::string_view package) {
  Given given;
  const int result = moduleThatTells(given).updateUSB(usb::bytesOf(usb::key()), kFolder);
  releasePlaintext();
  fuzz::require((result == 0) == given.image.has_value(), "the module gets what is applied");
  if (package.size() < kSmallestPackage) {
    fuzz::require(result == -1, "what is too short is refused");
    return false;
  }
  const std::string plaintext = decrypted(package, 0);
  fuzz::require((result == 0) == (plaintext.size() >= usb::kVersionSize), "a whole version block is applied");
  if (result == 0) {
    fuzz::require(*given.version == versionIn(plaintext), "the version is what was encrypted");
    fuzz::require(*given.image == plaintext.substr(usb::kVersionSize), "the image is what was encrypted");
  }
  return result == 0;
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>& visible) {
  enterLibraryDevice(visible);
}

bool fuzz::accepts(std::string_view input) {
  static auto& file = *new InputFile(kPackagePath);
  file.fill(input);
  const bool listed = list(input);
  const bool applied = apply(input);
  require(listed || !applied, "what is applied is listed");
  return applied;
}
