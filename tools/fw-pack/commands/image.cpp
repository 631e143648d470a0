// SPDX-License-Identifier: Apache-2.0
// fw-pack image IMAGE --type TYPE
#include <filesystem>
#include <iterator>
#include <optional>

#include "../commands.h"
#include "../files.h"
#include "image-signature.h"

namespace fwpack {
namespace {

struct ImageType {
  const char* name;
  bool folderPerFirmware;  // else image and info.json lie in the directory itself
  const char* place;       // what the directory becomes on the device
};

// An extension package is mounted on a directory of its own, so its content has
// no further folder.
constexpr ImageType kTypes[] = {
    {"builtin", true, "/lib/firmware/ext"},
    {"sbox", true, "/opt/usr/share/sbox"},
    {"usb", true, "the top of a USB drive"},
    {"emp", false, "the content of an extension package"},
};

const ImageType* findType(const std::string& name) {
  for (const ImageType& type : kTypes) {
    if (name == type.name) {
      return &type;
    }
  }
  return nullptr;
}

fwpackage::Statements statementsOf(const Options& options) {
  return {fwpackage::Kind::Image, options.name, options.model, options.version, options.minimumVersion};
}

}  // namespace

std::vector<std::string> imageTypes() {
  std::vector<std::string> names;
  for (const ImageType& type : kTypes) {
    names.emplace_back(type.name);
  }
  return names;
}

std::string imageTypeProblem(const std::string& name) {
  return findType(name) != nullptr ? "" : "the types are " + listOf(imageTypes());
}

frame::Report runImage(const Options& options) {
  const ImageType& type = *findType(options.type);
  const std::optional<SigningKey> signer = signerIfAny(options);
  if (signer) {
    signer->requireRoom(fwpackage::kNewestFormat, statementsOf(options));
  }
  const InputFile image(options.input);
  const image::Information information =
      describe(image, options.version, options.expectedTime, options.updateClass);
  std::filesystem::path folder = options.output;
  if (type.folderPerFirmware) {
    folder /= options.name;
  }
  makeDirectories(folder);
  const std::string binary = (folder / (options.name + ".bin")).string();
  OutputFile description((folder / "info.json").string(), kPublicMode);
  description.write(image::toText(information));
  copyFile(image, binary);
  description.commit();
  if (signer) {
    writeImageSignature(binary, (folder / "info.json").string(), *signer, statementsOf(options));
  }
  Json::Value details = detailsOf(information);
  details["image"] = binary;
  details["information"] = (folder / "info.json").string();
  details["directory"] = options.output;
  details["place"] = type.place;
  std::string files = binary + "\n" + details["information"].asString() + "\n";
  if (signer) {
    details["signature"] = binary + fwpackage::kImageSignatureSuffix;
    addSigner(details, *signer);
    files += details["signature"].asString() + ", signed with " + signer->text() + "\n";
  }
  return answer(files + options.output + " is for " + type.place + "\n", details);
}

}  // namespace fwpack
