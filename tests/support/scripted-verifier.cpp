// SPDX-License-Identifier: Apache-2.0
#include "scripted-verifier.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>

#include "package-verifier.h"
#include "recording-platform.h"

namespace scripted {
namespace {

constexpr const char* kFile = "/usr/lib/libkZAQUser.so";

std::function<int(const std::string&)>& answer() {
  static auto& instance = *new std::function<int(const std::string&)>;
  return instance;
}

const char* nameOf(Verifier variant) {
  switch (variant) {
    case Verifier::WithoutEntryPoint:
      return "verifier-without-verifyFile";
    case Verifier::NullEntryPoint:
      return "verifier-with-null-verifyFile";
    case Verifier::WithContentCheck:
      return "verifier-with-content-check";
    case Verifier::WithoutEndOfContentCheck:
      return "verifier-without-endContentCheck";
    case Verifier::WithoutNoteOfApplied:
      return "verifier-without-noteAppliedPackage";
    default:
      return "verifier-complete";
  }
}

bool isSigned(const std::string& path) {
  constexpr int kTrailerSize = 534;
  std::ifstream file(path, std::ios::binary);
  file.seekg(-kTrailerSize, std::ios::end);
  std::string mark(6, '\0');
  return file.read(mark.data(), static_cast<std::streamsize>(mark.size())) && mark == "SIGNED";
}

}  // namespace

void installVerifier(Verifier variant) {
  std::filesystem::remove(kFile);  // not written over: it may be loaded
  std::filesystem::copy_file(std::string(SCRIPTED_MODULES_DIRECTORY) + "/" + nameOf(variant) + ".so", kFile);
}

void setVerifierAnswer(std::function<int(const std::string&)> newAnswer) {
  answer() = std::move(newAnswer);
}

ContentChecks& contentChecks() {
  static auto& instance = *new ContentChecks;
  return instance;
}

namespace {

void call(const std::function<void()>& hook) {
  if (hook) {
    hook();
  }
}

}  // namespace
}  // namespace scripted

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

ENTRY_POINT PackageContentCheck* scripted_beginContentCheck(const char* filePath, int descriptor) {
  scripted::call(scripted::contentChecks().beforeBegin);
  struct stat status = {};
  const bool open = fstat(descriptor, &status) == 0;
  recording::noteCall("beginContentCheck(\"" + std::string(filePath) + "\", " + (open ? "open" : "not open") +
                      ")");
  if (!scripted::contentChecks().begins) {
    return nullptr;
  }
  scripted::contentChecks().content.clear();
  ++scripted::contentChecks().unreleased;
  return reinterpret_cast<PackageContentCheck*>(&scripted::contentChecks());
}

ENTRY_POINT void scripted_addCheckedContent(PackageContentCheck* check, const unsigned char* bytes,
                                            size_t size) {
  auto& checks = *reinterpret_cast<scripted::ContentChecks*>(check);
  checks.content.append(reinterpret_cast<const char*>(bytes), size);
  checks.largestAddition = std::max(checks.largestAddition, size);
  scripted::call(checks.afterBytes);
}

ENTRY_POINT int scripted_endContentCheck(PackageContentCheck* check) {
  auto& checks = *reinterpret_cast<scripted::ContentChecks*>(check);
  scripted::call(checks.beforeEnd);
  recording::noteCall("endContentCheck()");
  return checks.verdict;
}

ENTRY_POINT void scripted_releaseContentCheck(PackageContentCheck* check) {
  recording::noteCall("releaseContentCheck()");
  --reinterpret_cast<scripted::ContentChecks*>(check)->unreleased;
}

ENTRY_POINT int scripted_noteAppliedPackage(const PackageContentCheck* check) {
  recording::noteCall("noteAppliedPackage()");
  return reinterpret_cast<const scripted::ContentChecks*>(check)->noteResult;
}

extern "C" __attribute__((visibility("default"))) int scripted_verifyFile(int reserved, const char* filePath,
                                                                          const char* caller) {
  const std::string path = filePath;
  recording::noteCall("verifyFile(" + std::to_string(reserved) + ", \"" + path + "\", \"" + caller + "\")");
  if (scripted::answer()) {
    return scripted::answer()(path);
  }
  return scripted::isSigned(path) ? 1 : 0;
}
