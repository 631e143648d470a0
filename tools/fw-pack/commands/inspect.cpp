// SPDX-License-Identifier: Apache-2.0
// fw-pack inspect FILE
#include <json/value.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string_view>

#include "../child-program.h"
#include "../commands.h"
#include "../facts.h"
#include "../files.h"
#include "../package-cipher.h"
#include "../signature-check.h"
#include "../squashfs-content.h"
#include "release-list.h"

namespace fwpack {
namespace {

namespace fs = std::filesystem;

using image::Information;

constexpr std::size_t kLargestInformation = 65536;  // that the library reads

std::string hexCrc(std::uint32_t crc) {
  const unsigned char bytes[] = {static_cast<unsigned char>(crc >> 24U),
                                 static_cast<unsigned char>(crc >> 16U),
                                 static_cast<unsigned char>(crc >> 8U), static_cast<unsigned char>(crc)};
  return std::to_string(crc) + " (0x" + fwpackage::toHex(bytes, sizeof bytes) + ")";
}

void addCrc(Facts& facts, const char* member, const char* label, std::uint32_t crc) {
  facts.add(member, label, crc, hexCrc(crc));
}

void addInformation(Facts& facts, const Information& information) {
  facts.add("version", "version", information.version);
  addCrc(facts, "statedCrc", "stated CRC", information.crc);
  facts.add("expectedTime", "expected time", information.expectedTime,
            std::to_string(information.expectedTime) + " s");
  if (!information.updateClass.empty()) {
    facts.add("class", "class", information.updateClass);
  }
}

std::optional<Information> informationIn(const std::string& text) {
  return text.size() <= kLargestInformation ? image::parseInformation(text) : std::nullopt;
}

// What is wrong with the file, which is named; empty when nothing is.
using Damage = std::string;

void addMatch(Facts& facts, bool matches) {
  facts.add("crcMatches", "CRC check", matches, matches ? "the image is what info.json states" : "DIFFERENT");
}

// ---- USB packages -----------------------------------------------------------

struct Plaintext {
  std::string versionBlock;
  std::uint64_t imageSize = 0;
  image::Crc crc;
  bool paddingFits = false;

  void add(const unsigned char* bytes, std::size_t size) {
    const std::size_t head = std::min(size, kVersionBlockSize - versionBlock.size());
    versionBlock.append(reinterpret_cast<const char*>(bytes), head);
    crc.add(bytes + head, size - head);
    imageSize += size - head;
  }
  std::string version() const { return versionBlock.substr(0, versionBlock.find('\0')); }
  // A wrong key gives random bytes: nearly always wrong padding, and no text.
  bool looksRight() const {
    const std::string text = version();
    return paddingFits && versionBlock.size() == kVersionBlockSize && !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }) &&
           versionBlock.find_first_not_of('\0', text.size()) == std::string::npos;
  }
};

Plaintext decrypt(const InputFile& file, const secret::Secret& key) {
  Iv iv;
  file.read(0, iv.size(), [&](const unsigned char* bytes, std::size_t size) {
    std::copy(bytes, bytes + size, iv.begin());
  });
  Plaintext plaintext;
  const Block keep = [&](const unsigned char* bytes, std::size_t size) { plaintext.add(bytes, size); };
  PackageCipher cipher(key, iv, PackageCipher::Direction::Decrypt);
  file.read(kIvSize, file.size() - kIvSize - fwpackage::kTrailerSize,
            [&](const unsigned char* bytes, std::size_t size) { cipher.add(bytes, size, keep); });
  plaintext.paddingFits = cipher.finish(keep);
  return plaintext;
}

void addContent(Facts& facts, const InputFile& file, const Options& options) {
  const secret::Secret key = withWarning(secret::readPackageKey(options.keyFile));
  const Plaintext plaintext = decrypt(file, key);
  const bool fits = plaintext.looksRight();
  facts.add("keyFits", "key", fits, fits ? "fits" : "does not fit, or the package is damaged");
  if (fits) {
    facts.add("version", "version", plaintext.version());
    facts.add("imageSize", "image size", Json::UInt64(plaintext.imageSize));
    addCrc(facts, "imageCrc", "image CRC", plaintext.crc.value());
  }
}

Damage inspectPackage(Facts& facts, const InputFile& file, const Options& options,
                      const fwpackage::SignatureReport& signature) {
  const bool sizeFits = file.size() >= kSmallestPackage && file.size() <= kLargestPackage &&
                        (file.size() - kIvSize - fwpackage::kTrailerSize) % kCipherBlock == 0;
  facts.add("kind", "kind", "usb-package", "USB package");
  facts.add("size", "size", Json::UInt64(file.size()));
  facts.add("sizeFits", "size check", sizeFits, sizeFits ? "as a package's" : "NOT a package's");
  facts.add("signature", "signature", toJson(signature), toTextForALook(signature));
  if (!sizeFits) {
    return file.path() + " has not the size of a USB package: it is cut off, or no package.";
  }
  const std::string iv = file.text(0, kIvSize);
  facts.add("iv", "IV", fwpackage::toHex(reinterpret_cast<const unsigned char*>(iv.data()), iv.size()));
  facts.add("ciphertextSize", "ciphertext", Json::UInt64(file.size() - kIvSize - fwpackage::kTrailerSize));
  if (!options.keyFile.empty()) {
    addContent(facts, file, options);
  }
  return "";
}

// ---- extension packages -----------------------------------------------------

// The one "*.bin" at the top of the package; empty when there is none.
std::string imageIn(const std::string& package) {
  std::string names;
  runProgram({"unsquashfs", "-l", "-d", "", package}, kSquashfsTools,
             [&](std::string_view bytes) { names.append(bytes); });
  std::istringstream lines(names);
  for (std::string line; std::getline(lines, line);) {
    const fs::path path = line;
    if (path.extension() == ".bin" && path.parent_path() == "/") {
      return path.filename().string();
    }
  }
  return "";
}

Damage inspectExtensionPackage(Facts& facts, const InputFile& file, const Options& options) {
  // An absolute path is no option, whatever the file is called.
  const std::string package = fs::absolute(file.path()).string();
  facts.add("kind", "kind", "emp-image", "extension package image (squashfs)");
  facts.add("size", "size", Json::UInt64(file.size()));
  const fwpackage::SignatureReport signature = checkSignature(options);
  facts.add("signature", "signature", toJson(signature), toTextForALook(signature));
  addCrc(facts, "crc", "CRC", imageCrc(file));
  const std::string image = imageIn(package);
  const auto information = informationIn(textIn(package, "info.json", kLargestInformation + 1));
  facts.add("informationValid", "info.json", information.has_value(),
            information ? "valid" : "MISSING or invalid");
  if (information) {
    addInformation(facts, *information);
  }
  facts.add("image", "image", image, image.empty() ? "MISSING" : image);
  if (image.empty() || !information) {
    return file.path() + " holds no " + (image.empty() ? "image (*.bin)" : "valid info.json") + ".";
  }
  image::Crc crc;
  std::uint64_t size = 0;
  const bool readable = contentOf(package, image, [&](std::string_view bytes) {
    crc.add(bytes.data(), bytes.size());
    size += bytes.size();
  });
  facts.add("imageSize", "image size", Json::UInt64(size));
  addCrc(facts, "imageCrc", "image CRC", crc.value());
  const bool matches = readable && crc.value() == information->crc;
  addMatch(facts, matches);
  return matches ? "" : "In " + file.path() + ", " + image + " is not the image that info.json describes.";
}

// ---- images and their description --------------------------------------------

void inspectInformation(Facts& facts, const InputFile& file, const Information& information) {
  facts.add("kind", "kind", "info.json", "description of an image (info.json)");
  facts.add("size", "size", Json::UInt64(file.size()));
  addInformation(facts, information);
}

std::string informationBeside(const std::string& image) {
  return (fs::path(image).parent_path() / "info.json").string();
}

bool isThere(const std::string& path) {
  std::error_code missing;
  return fs::is_regular_file(path, missing);
}

// expected: a firmware directory is inspected, which has an "info.json".
Damage inspectImage(Facts& facts, const InputFile& file, bool expected) {
  const std::string path = informationBeside(file.path());
  facts.add("kind", "kind", "image", "firmware image, or anything else");
  facts.add("size", "size", Json::UInt64(file.size()));
  const std::uint32_t crc = imageCrc(file);
  addCrc(facts, "crc", "CRC", crc);
  if (!isThere(path)) {
    return expected ? path + " is missing, or no file." : "";
  }
  const auto information = informationIn(InputFile(path).text(0, kLargestInformation + 1));
  if (!information) {
    return path + " is damaged: it is no valid description of an image.";
  }
  addInformation(facts, *information);
  addMatch(facts, crc == information->crc);
  return crc == information->crc ? "" : file.path() + " is not the image that " + path + " describes.";
}

Damage inspectImageSignature(Facts& facts, const InputFile& file,
                             const fwpackage::SignatureReport& signature) {
  facts.add("kind", "kind", "image-signature", "signature of the image beside it and its info.json");
  facts.add("size", "size", Json::UInt64(file.size()));
  facts.add("signature", "signature", toJson(signature), toTextForALook(signature));
  return "";
}

// ---- release lists ------------------------------------------------------------

Json::Value jsonOf(const image::ReleaseComponent& component) {
  Json::Value value;
  value["name"] = component.name;
  value["version"] = component.version;
  value["minimumVersion"] = component.minimumVersion;
  value["model"] = component.model;
  for (const image::ReleaseArtifact& artifact : component.artifacts) {
    Json::Value& entry = value["artifacts"].append(Json::Value());
    entry["file"] = artifact.file;
    entry["size"] = static_cast<Json::Int64>(artifact.size);
    entry["sha256"] = artifact.sha256;
  }
  return value;
}

std::string textOf(const image::ReleaseComponent& component) {
  std::string text = component.name + " " + component.version +
                     (component.model.empty() ? "" : " on " + component.model) + ":";
  for (const image::ReleaseArtifact& artifact : component.artifacts) {
    text += " " + artifact.file;
  }
  return text;
}

Damage inspectReleaseList(Facts& facts, const InputFile& file, const Options& options) {
  facts.add("kind", "kind", "release-list", "release list");
  facts.add("size", "size", Json::UInt64(file.size()));
  const fwpackage::SignatureReport signature = checkSignature(options);
  facts.add("signature", "signature", toJson(signature), toTextForALook(signature));
  const image::ReleaseListRead read = image::parseReleaseList(file.text(0, image::kLargestReleaseList + 1));
  if (!read.list) {
    return file.path() + " is no list that a set uses: " + read.problem + ".";
  }
  facts.add("number", "number", Json::Int64(read.list->number));
  facts.add("issued", "issued", image::timeText(read.list->issued));
  facts.add("expires", "expires", image::timeText(read.list->expires));
  Json::Value components(Json::arrayValue);
  std::string text;
  for (const image::ReleaseComponent& component : read.list->components) {
    components.append(jsonOf(component));
    text += (text.empty() ? "" : "; ") + textOf(component);
  }
  facts.add("components", "components", components, text.empty() ? "none" : text);
  return "";
}

// A firmware directory stands for its image.
std::string imageOfDirectory(const std::string& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.path().extension() == ".bin") {
      return entry.path().string();
    }
  }
  throw Failure(ExitCode::Failed, directory + " is a directory without an image (*.bin)");
}

Damage inspectFile(Facts& facts, const Options& options, bool isDirectory) {
  const InputFile file(options.input);
  const auto information = informationIn(file.text(0, kLargestInformation + 1));
  if (information) {
    inspectInformation(facts, file, *information);
    return "";
  }
  if (isReleaseListFile(file.path())) {
    return inspectReleaseList(facts, file, options);
  }
  if (isSquashfs(file)) {
    return inspectExtensionPackage(facts, file, options);
  }
  const fwpackage::SignatureReport signature = checkSignature(options);
  if (isImageSignature(file.path())) {
    return inspectImageSignature(facts, file, signature);
  }
  // With a key it is looked into as a package, even when the trailer is gone.
  if (signature.trailer.state != fwpackage::Trailer::State::Missing || !options.keyFile.empty()) {
    return inspectPackage(facts, file, options, signature);
  }
  return inspectImage(facts, file, isDirectory);
}

}  // namespace

frame::Report runInspect(const Options& options) {
  Options chosen = options;
  const bool isDirectory = fs::is_directory(options.input);
  if (isDirectory) {
    chosen.input = imageOfDirectory(options.input);
  }
  Facts facts;
  facts.add("file", "file", chosen.input);
  const Damage damage = inspectFile(facts, chosen, isDirectory);
  frame::Report report = answer(facts.toText(), facts.toJson());
  if (!damage.empty()) {
    report.ending = ExitCode::Damaged;
    report.message = damage;
    report.remedy = "Copy all files of it again from where they were made, or make them again.";
  }
  return report;
}

}  // namespace fwpack
