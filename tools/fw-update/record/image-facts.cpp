// SPDX-License-Identifier: Apache-2.0
#include "record/image-facts.h"

#include <fcntl.h>

#include <filesystem>

#include "device-paths.h"
#include "file-descriptor.h"
#include "fw-update-symbol.h"
#include "image-information.h"
#include "module-names.h"
#include "package-signature.h"
#include "whole-file.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestInformation = std::size_t{64} * 1024;

bool isPackageOf(const std::string& package, const std::string& firmware) {
  return fwnames::namesFirmware(package) && fwnames::firmwareNameOf(package) == firmware;
}

std::string extensionPackage(const std::string& firmware) {
  std::error_code error;
  for (auto entry = fs::directory_iterator(fwpaths::kPackageImages, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (entry->path().extension() == ".img" && isPackageOf(entry->path().stem(), firmware)) {
      return entry->path();
    }
  }
  return "";
}

std::optional<image::Information> informationIn(const std::string& path) {
  std::string text;
  return base::readFile(path, kLargestInformation, text) == 0 ? image::parseInformation(text) : std::nullopt;
}

std::string checksumIn(const std::string& path) {
  const auto information = informationIn(path);
  return information ? std::to_string(information->crc) : "";
}

std::string keyOf(const std::string& package) {
  const base::FileDescriptor file(open(package.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  fwpackage::TrailerBytes bytes{};
  std::int64_t content = 0;
  if (!file || fwpackage::readTrailer(file.get(), bytes, content) != fwpackage::Verdict::Valid) {
    return "";
  }
  const fwpackage::Trailer trailer = fwpackage::parseTrailer(bytes);
  return trailer.state == fwpackage::Trailer::State::Good
             ? fwpackage::toHex(trailer.keyId.data(), trailer.keyId.size())
             : "";
}

void addDirectoryFacts(history::Entry& entry, const std::string& directory, const char* source) {
  const std::string place = directory + entry.firmware + "/";
  entry.source = source;
  entry.image = place + entry.firmware + ".bin";
  entry.checksum = checksumIn(place + "info.json");
}

}  // namespace

void addImageFacts(history::Entry& entry, UPDATE_TYPE place) {
  std::string drive;
  if (entry.firmware.empty()) {
    return;
  }
  if (place == UPDATE_TYPE_BUILTIN) {
    addDirectoryFacts(entry, fwpaths::kBuiltinImages, "firmware directory");
  } else if (place == UPDATE_TYPE_SBOX) {
    addDirectoryFacts(entry, fwpaths::kSboxImages, "sbox");
  } else if (place == UPDATE_TYPE_EMP) {
    entry.source = "extension package";
    entry.image = extensionPackage(entry.firmware);
    entry.key = keyOf(entry.image);
  } else if (FWUpdateSymbol("").getUsbMountPath(drive)) {
    addDirectoryFacts(entry, drive, "USB drive");
  }
}

std::optional<image::Information> offeredImage(const std::string& firmware, UPDATE_TYPE place) {
  history::Entry facts;
  facts.firmware = firmware;
  addImageFacts(facts, place);
  if (facts.image.empty()) {
    return std::nullopt;
  }
  const fs::path image = facts.image;
  const fs::path folder =
      place == UPDATE_TYPE_EMP ? fwpaths::kPackageMounts / image.stem() : image.parent_path();
  return informationIn(folder / "info.json");
}

void addPackageFacts(history::Entry& entry, const std::string& package) {
  entry.source = "USB package";
  entry.image = package;
  entry.key = keyOf(package);
}

}  // namespace tool
