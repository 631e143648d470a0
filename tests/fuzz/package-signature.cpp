// SPDX-License-Identifier: Apache-2.0
// Fuzz target: what the verifier does with a package. Its keys and lists are those of
// tests/fuzz/keys, and only the packages of the corpus's folder "good" were ever
// signed with them: nothing else may pass.
#include "package-signature.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz-target.h"
#include "input-file.h"

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

fwpackage::Expectation wanted() {
  fwpackage::Expectation expected;
  expected.name = "tunerfw";
  expected.model = "set-1";
  return expected;
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>&) {}

bool fuzz::accepts(std::string_view input) {
  static auto& file = *new InputFile;
  file.fill(input);
  const fwpackage::Trust trust = fwpackage::trustIn(kKeyDirectory);
  const fwpackage::Verdict verdict = fwpackage::checkSignature(file.path(), trust, wanted()).verdict;
  require(*fwpackage::infoOf(verdict).sentence != '\0', "every verdict has a sentence");
  const bool valid = verdict == fwpackage::Verdict::Valid;
  require(valid == wasSigned(input), "what was signed passes, and nothing else");
  return valid;
}
