// SPDX-License-Identifier: Apache-2.0
#include "signature-check.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "exit-code.h"
#include "files.h"
#include "image-signature.h"
#include "list-signature.h"
#include "public-keys.h"
#include "release-list.h"

namespace fwpack {
namespace {

std::string keyIdText(const fwpackage::KeyId& id) {
  return fwpackage::toHex(id.data(), id.size());
}

// The image that a signature lies beside; empty when the file is called otherwise.
std::string imageOf(const std::string& signature) {
  const std::string suffix = fwpackage::kImageSignatureSuffix;
  const bool isOne = signature.size() > suffix.size() &&
                     signature.compare(signature.size() - suffix.size(), suffix.size(), suffix) == 0;
  return isOne ? signature.substr(0, signature.size() - suffix.size()) : "";
}

fwpackage::Kind kindOf(const Options& options) {
  if (!imageOf(options.input).empty()) {
    return fwpackage::Kind::Image;
  }
  return isSquashfs(InputFile(options.input)) ? fwpackage::Kind::ExtensionPackage
                                              : fwpackage::Kind::UsbPackage;
}

fwpackage::Expectation expectationOf(const Options& options) {
  fwpackage::Expectation expected;
  expected.kind = kindOf(options);
  const std::string image = imageOf(options.input);
  expected.name =
      options.name.empty() ? fwpackage::nameFromPath(image.empty() ? options.input : image) : options.name;
  expected.anyModel = options.model.empty();
  expected.model = options.model;
  return expected;
}

// The text that the reader asks for first: what it is for.
std::string stated(const fwpackage::Statements& statements) {
  return statements.name + " " + statements.version +
         (statements.model.empty() ? "" : " on " + statements.model) +
         (statements.minimumVersion.empty() ? "" : ", from then on none below " + statements.minimumVersion);
}

// What the trailer states is told only when it was signed.
bool isSigned(const fwpackage::SignatureReport& report) {
  constexpr fwpackage::Verdict kVerdicts[] = {fwpackage::Verdict::Valid, fwpackage::Verdict::OtherKind,
                                              fwpackage::Verdict::OtherName, fwpackage::Verdict::OtherModel};
  return report.trailer.format == fwpackage::kNewestFormat &&
         std::find(std::begin(kVerdicts), std::end(kVerdicts), report.verdict) != std::end(kVerdicts);
}

void addStatements(Json::Value& value, const fwpackage::Statements& statements) {
  constexpr const char* kKinds[] = {"usb-package", "extension-package", "image", "release-list"};
  value["for"] = kKinds[static_cast<std::size_t>(statements.kind) - 1];
  value["name"] = statements.name;
  value["model"] = statements.model;
  value["version"] = statements.version;
  value["minimumVersion"] = statements.minimumVersion;
}

// " (ed25519, key 0123456789abcdef)"; empty when the trailer names none.
std::string signer(const fwpackage::SignatureReport& report) {
  if (report.trailer.algorithm == nullptr) {
    return "";
  }
  const std::string old = report.trailer.format == fwpackage::kOldFormat ? ", format 1" : "";
  return " (" + std::string(report.trailer.algorithm->name) + ", key " + keyIdText(report.trailer.keyId) +
         old + ")";
}

// The list that a file is, or signs; empty when it does neither.
std::string listOf(const std::string& path) {
  const std::string image = imageOf(path);
  const std::string list = image.empty() ? path : image;
  const std::filesystem::path name = list;
  return name.extension() == ".json" && std::filesystem::is_regular_file(name) &&
                 image::isReleaseList(InputFile(list).text(0, image::kLargestReleaseList + 1))
             ? list
             : "";
}

fwpackage::SignatureReport checkList(const std::string& list, const fwpackage::Trust& trust) {
  const std::string signature = list + fwpackage::kListSignatureSuffix;
  return fwpackage::checkListSignature(InputFile(list).text(0, image::kLargestReleaseList + 1),
                                       InputFile(signature).text(0, fwpackage::kTrailerSize + 1), trust);
}

}  // namespace

fwpackage::Trust trustInFile(const std::string& path) {
  if (!fwpackage::readPublicKey(path)) {
    throw Failure(ExitCode::Failed, path + " holds no public key in PEM");
  }
  return {[path](const fwpackage::KeyId& id) {
            fwpackage::Key key = fwpackage::readPublicKey(path);
            return key && fwpackage::keyIdOf(key.get()) == id ? std::move(key) : fwpackage::Key();
          },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::No; },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::Yes; },
          [](const std::string&) { return fwpackage::MinimumVersion(); }};
}

fwpackage::SignatureReport checkBeside(const std::string& signature, const std::string& image,
                                       const fwpackage::Trust& trust,
                                       const fwpackage::Expectation& expected) {
  const auto opened = [](const std::string& path) {
    base::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
      failWithErrno("cannot open " + path);
    }
    return file;
  };
  const std::string information = (std::filesystem::path(image).parent_path() / "info.json").string();
  return fwpackage::checkImageSignature(opened(signature).get(), opened(image).get(),
                                        opened(information).get(), trust, expected);
}

bool isReleaseListFile(const std::string& path) {
  return !listOf(path).empty() && imageOf(path).empty();
}

bool isImageSignature(const std::string& path) {
  return !imageOf(path).empty();
}

fwpackage::SignatureReport checkSignature(const Options& options) {
  const fwpackage::Trust trust = options.publicKeyFile.empty() ? fwpackage::trustIn(options.keyDirectory)
                                                               : trustInFile(options.publicKeyFile);
  if (const std::string list = listOf(options.input); !list.empty()) {
    return checkList(list, trust);
  }
  const std::string image = imageOf(options.input);
  if (!image.empty()) {
    return checkBeside(options.input, image, trust, expectationOf(options));
  }
  return fwpackage::checkSignature(options.input, trust, expectationOf(options));
}

Json::Value toJson(const fwpackage::SignatureReport& report) {
  const fwpackage::VerdictInfo& info = fwpackage::infoOf(report.verdict);
  Json::Value value;
  value["valid"] = report.verdict == fwpackage::Verdict::Valid;
  value["verdict"] = info.id;
  value["message"] = info.sentence;
  if (report.trailer.algorithm != nullptr) {
    value["algorithm"] = report.trailer.algorithm->name;
    value["keyId"] = keyIdText(report.trailer.keyId);
    value["format"] = report.trailer.format;
  }
  if (isSigned(report)) {
    addStatements(value, report.trailer.statements);
  }
  return value;
}

std::string toText(const fwpackage::SignatureReport& report) {
  std::string text = fwpackage::infoOf(report.verdict).sentence;
  if (isSigned(report)) {
    const bool valid = report.verdict == fwpackage::Verdict::Valid;
    text += (valid ? " for " : ": ") + stated(report.trailer.statements);
  }
  return text + signer(report);
}

std::string toTextForALook(const fwpackage::SignatureReport& report) {
  return report.verdict == fwpackage::Verdict::UnknownKey
             ? "not checked: the signer's key is not at hand; give its public half with --public-key" +
                   signer(report)
             : toText(report);
}

}  // namespace fwpack
