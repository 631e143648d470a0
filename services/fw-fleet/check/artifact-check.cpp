// SPDX-License-Identifier: Apache-2.0
#include "artifact-check.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "device-policy.h"
#include "image-signature.h"
#include "module-names.h"

namespace fleet {
namespace {

constexpr char kInformation[] = "info.json";
constexpr char kSquashfs[] = {'h', 's', 'q', 's'};

bool isPackedAsPackage(int file) {
  char begin[sizeof kSquashfs] = {};
  return pread(file, begin, sizeof begin, 0) == static_cast<ssize_t>(sizeof begin) &&
         std::memcmp(begin, kSquashfs, sizeof begin) == 0;
}

// A package has the name of its firmware, or that of its module, which names the firmware.
bool isFor(const fwpackage::Trailer& trailer, Kind kind, const std::string& component) {
  const std::string& name = trailer.statements.name;
  return name.empty() || name == component ||
         (kind == Kind::Package && fwnames::firmwareNameOf(name) == component);
}

fwpackage::SignatureReport reportOf(int file, Kind kind, const std::string& component) {
  const bool isPackage = kind == Kind::Package;
  fwpackage::Expectation wanted = fwpackage::wantedOnDevice(
      isPackage ? fwpackage::Kind::ExtensionPackage : fwpackage::Kind::UsbPackage, component);
  wanted.name = std::nullopt;
  fwpackage::SignatureReport report = fwpackage::checkSignature(file, fwpackage::trustOfDevice(), wanted);
  if (report.verdict == fwpackage::Verdict::Valid && !isFor(report.trailer, kind, component)) {
    report.verdict = fwpackage::Verdict::OtherName;
  }
  return report;
}

bool isSignature(const InstallFile& file) {
  const std::string suffix = fwpackage::kImageSignatureSuffix;
  return file.name.size() > suffix.size() &&
         file.name.compare(file.name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Of an image, its info.json and its signature; without the signature it is unsigned.
fwpackage::SignatureReport reportOfImage(const std::vector<InstallFile>& files,
                                         const std::string& component) {
  int image = -1, information = -1, signature = -1;
  for (const InstallFile& file : files) {
    (file.name == kInformation ? information : isSignature(file) ? signature : image) = file.descriptor;
  }
  fwpackage::SignatureReport report;
  report.verdict = fwpackage::Verdict::NoTrailer;
  if (image < 0 || signature < 0) {
    return report;
  }
  return fwpackage::checkImageSignature(signature, image, information, fwpackage::trustOfDevice(),
                                        fwpackage::wantedOnDevice(fwpackage::Kind::Image, component));
}

}  // namespace

std::optional<Kind> kindOf(const std::vector<InstallFile>& files) {
  const bool hasInformation = std::any_of(files.begin(), files.end(),
                                          [](const InstallFile& file) { return file.name == kInformation; });
  if (hasInformation) {
    return files.size() > 1 ? std::optional(Kind::Image) : std::nullopt;
  }
  if (files.size() != 1) {
    return std::nullopt;
  }
  return isPackedAsPackage(files[0].descriptor) ? Kind::Package : Kind::Usb;
}

Checked checkArtifacts(const std::string& component, const std::vector<InstallFile>& files) {
  const auto kind = kindOf(files);
  if (!kind) {
    return {"The artifacts of " + component + " are neither one package nor an image with its info.json.",
            "Upload a package, or an image, its info.json and its signature."};
  }
  const fwpackage::SignatureReport report = *kind == Kind::Image
                                                ? reportOfImage(files, component)
                                                : reportOf(files[0].descriptor, *kind, component);
  if (report.verdict == fwpackage::Verdict::Valid) {
    return {};
  }
  return {component + ": it is refused: " + fwpackage::infoOf(report.verdict).sentence + ".",
          "Offer one that is signed for this component and set, by a key of the set."};
}

}  // namespace fleet
