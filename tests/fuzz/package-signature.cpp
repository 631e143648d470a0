// SPDX-License-Identifier: Apache-2.0
// Fuzz target: what the verifier does with a package, and with the signatures of an image and of a release
// list. Its keys and lists are those of tests/fuzz/keys, and only the packages of the corpus's folder "good"
// were ever signed with them: nothing else may pass.
#include "package-signature.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "file-descriptor.h"
#include "fuzz-target.h"
#include "image-signature.h"
#include "input-file.h"
#include "list-signature.h"

namespace {

constexpr const char* kKeyDirectory = FUZZ_SOURCE_TREE "/tests/fuzz/keys";
constexpr const char* kSignedPackages = FUZZ_SOURCE_TREE "/tests/fuzz/corpus/package-signature/good";

std::vector<std::string> readSignedPackages() {
  std::vector<std::string> packages;
  for (const auto& entry : std::filesystem::directory_iterator(kSignedPackages)) {
    std::ifstream stream(entry.path(), std::ios::binary);
    packages.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return packages;
}

bool wasSigned(std::string_view input) {
  static const auto& packages = *new std::vector<std::string>(readSignedPackages());
  return std::find(packages.begin(), packages.end(), input) != packages.end();
}

fwpackage::Expectation wanted(fwpackage::Kind kind) {
  fwpackage::Expectation expected;
  expected.kind = kind;
  expected.name = "tunerfw";
  expected.model = "set-1";
  return expected;
}

fwpackage::SignatureReport checkBesideAnImage(const std::string& signature, const fwpackage::Trust& trust) {
  static auto& image = *new fuzz::InputFile;
  static auto& information = *new fuzz::InputFile;
  image.fill("the image");
  information.fill("{}");
  const auto opened = [](const std::string& path) {
    return base::FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  };
  return fwpackage::checkImageSignature(opened(signature).get(), opened(image.path()).get(),
                                        opened(information.path()).get(), trust,
                                        wanted(fwpackage::Kind::Image));
}

// The list, and behind it its signature.
fwpackage::SignatureReport checkAsList(std::string_view input, const fwpackage::Trust& trust) {
  const std::size_t list = input.size() - std::min(input.size(), fwpackage::kTrailerSize);
  return fwpackage::checkListSignature(input.substr(0, list), input.substr(list), trust);
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>&) {}

bool fuzz::accepts(std::string_view input) {
  static auto& file = *new InputFile;
  file.fill(input);
  const fwpackage::Trust trust = fwpackage::trustIn(kKeyDirectory);
  const auto package =
      fwpackage::checkSignature(file.path(), trust, wanted(fwpackage::Kind::UsbPackage)).verdict;
  const auto image = checkBesideAnImage(file.path(), trust).verdict;
  const auto list = checkAsList(input, trust).verdict;
  for (const fwpackage::Verdict verdict : {package, image, list}) {
    require(*fwpackage::infoOf(verdict).sentence != '\0', "every verdict has a sentence");
  }
  const bool valid = package == fwpackage::Verdict::Valid || image == fwpackage::Verdict::Valid ||
                     list == fwpackage::Verdict::Valid;
  require(valid == wasSigned(input), "what was signed passes, and nothing else");
  return valid;
}
