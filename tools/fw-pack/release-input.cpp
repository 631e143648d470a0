// SPDX-License-Identifier: Apache-2.0
#include "release-input.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "exit-code.h"
#include "files.h"
#include "image-information.h"
#include "image-signature.h"
#include "module-names.h"
#include "signature-check.h"
#include "signing.h"
#include "squashfs-content.h"

namespace fwpack {
namespace {

namespace fs = std::filesystem;
using fwpackage::Kind;
using fwpackage::SignatureReport;
using fwpackage::Statements;
using fwpackage::Verdict;

constexpr char kInformation[] = "info.json";
constexpr char kPackageSuffix[] = ".img";
constexpr char kUsbSuffix[] = ".bin";
constexpr std::size_t kLargestInformation = 65536;

[[noreturn]] void refuse(const std::string& sentence) {
  throw Failure(ExitCode::Failed, sentence);
}

fwpackage::Expectation expected(Kind kind, const std::string& name) {
  fwpackage::Expectation wanted;
  wanted.kind = kind;
  wanted.name = name;
  wanted.anyModel = true;
  return wanted;
}

// check: of one signature with one trust.
template <typename Check>
Statements signedBy(const std::string& path, const std::vector<fwpackage::Trust>& trusts, Check check) {
  SignatureReport report;
  for (const fwpackage::Trust& trust : trusts) {
    report = check(trust);
    if (report.verdict != Verdict::UnknownKey) {
      break;
    }
  }
  const Statements& stated = report.trailer.statements;
  if (report.verdict == Verdict::OtherName) {
    refuse(path + " is signed for " + stated.name + "; give it its own name again");
  }
  if (report.verdict == Verdict::UnknownKey) {
    refuse(path + " is signed with another key; name its public half with --public-key");
  }
  if (report.verdict != Verdict::Valid) {
    refuse(path + ": " + fwpackage::infoOf(report.verdict).sentence);
  }
  if (report.trailer.format != fwpackage::kNewestFormat || stated.version.empty()) {
    refuse(path + " has a signature that states no version; make it with a newer fw-pack");
  }
  return stated;
}

image::ReleaseArtifact artifactAt(const std::string& path) {
  const std::string name = fs::path(path).filename().string();
  return {name, static_cast<std::int64_t>(InputFile(path).size()), sha256Of(path)};
}

ReleaseInput inputOf(const std::string& name, const Statements& stated, std::vector<std::string> paths) {
  ReleaseInput input;
  input.component = {name, stated.version, stated.minimumVersion, stated.model, {}};
  std::transform(paths.begin(), paths.end(), std::back_inserter(input.component.artifacts), &artifactAt);
  input.paths = std::move(paths);
  return input;
}

// The version that the set is told by the description has to be the signed one.
void requireVersion(const std::string& path, const std::string& information, const Statements& stated) {
  const auto read =
      information.size() <= kLargestInformation ? image::parseInformation(information) : std::nullopt;
  if (!read) {
    refuse(path + " has no valid info.json");
  }
  if (read->version != stated.version) {
    refuse(path + ": its signature says version " + stated.version + ", and its info.json " + read->version);
  }
}

ReleaseInput packageAt(const fs::path& path, const std::vector<fwpackage::Trust>& trusts) {
  const std::string file = path.string();
  const bool isExtension = isSquashfs(InputFile(file));
  if (path.extension() != (isExtension ? kPackageSuffix : kUsbSuffix)) {
    refuse(file + (isExtension ? " is an extension package, and is not called *.img"
                               : " is no extension package, and is called *.img"));
  }
  const auto wanted = expected(isExtension ? Kind::ExtensionPackage : Kind::UsbPackage, path.stem().string());
  const Statements stated = signedBy(file, trusts, [&](const fwpackage::Trust& trust) {
    return fwpackage::checkSignature(file, trust, wanted);
  });
  if (isExtension) {
    requireVersion(file, textIn(fs::absolute(path).string(), kInformation, kLargestInformation + 1), stated);
  }
  return inputOf(isExtension ? fwnames::firmwareNameOf(stated.name) : stated.name, stated, {file});
}

// As fw-pack image lays it out: a folder of the firmware's name.
ReleaseInput imageIn(const fs::path& folder, const std::vector<fwpackage::Trust>& trusts) {
  const std::string name = folder.filename().string();
  const std::string image = (folder / (name + kUsbSuffix)).string();
  const std::string signature = image + fwpackage::kImageSignatureSuffix;
  const std::vector<std::string> paths = {image, (folder / kInformation).string(), signature};
  for (const std::string& path : paths) {
    if (!fs::is_regular_file(path)) {
      refuse(path +
             " is missing: an image needs its info.json and its signature (fw-pack image --signing-key)");
    }
  }
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (std::find(paths.begin(), paths.end(), entry.path().string()) == paths.end()) {
      refuse(entry.path().string() + " is no part of the image; take it away");
    }
  }
  const Statements stated = signedBy(signature, trusts, [&](const fwpackage::Trust& trust) {
    return checkBeside(signature, image, trust, expected(Kind::Image, name));
  });
  requireVersion(signature, InputFile(paths[1]).text(0, kLargestInformation + 1), stated);
  return inputOf(name, stated, paths);
}

ReleaseInput inputAt(const fs::path& path, const std::vector<fwpackage::Trust>& trusts) {
  if (fs::is_directory(path)) {
    return imageIn(path, trusts);
  }
  if (path.extension() == kPackageSuffix || path.extension() == kUsbSuffix) {
    return packageAt(path, trusts);
  }
  refuse(path.string() + " is neither a package (*.img, *.bin) nor the folder of an image; take it away");
}

}  // namespace

std::vector<ReleaseInput> readReleaseInput(const std::string& directory,
                                           const std::vector<fwpackage::Trust>& trusts) {
  if (!fs::is_directory(directory)) {
    refuse(directory + " is no directory");
  }
  std::vector<fs::path> paths;
  for (const auto& entry : fs::directory_iterator(directory)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<ReleaseInput> inputs;
  for (const fs::path& path : paths) {
    ReleaseInput input = inputAt(path, trusts);
    for (const ReleaseInput& other : inputs) {
      if (other.component.name == input.component.name) {
        refuse(other.paths[0] + " and " + input.paths[0] + " are both for " + input.component.name +
               "; a release has one of them");
      }
    }
    inputs.push_back(std::move(input));
  }
  if (inputs.empty()) {
    refuse(directory + " holds nothing to release");
  }
  std::sort(inputs.begin(), inputs.end(), [](const ReleaseInput& one, const ReleaseInput& other) {
    return one.component.name < other.component.name;
  });
  return inputs;
}

}  // namespace fwpack
