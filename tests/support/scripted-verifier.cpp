#include "scripted-verifier.h"

#include <filesystem>
#include <fstream>
#include <utility>

#include "recording-platform.h"

namespace scripted {
namespace {

constexpr const char* File = "/usr/lib/libkZAQUser.so";

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
    default:
      return "verifier-complete";
  }
}

bool isSigned(const std::string& path) {
  constexpr int TrailerSize = 534;
  std::ifstream file(path, std::ios::binary);
  file.seekg(-TrailerSize, std::ios::end);
  std::string mark(6, '\0');
  return file.read(mark.data(), static_cast<std::streamsize>(mark.size())) && mark == "SIGNED";
}

}  // namespace

void installVerifier(Verifier variant) {
  std::filesystem::remove(File);  // not written over: it may be loaded
  std::filesystem::copy_file(std::string(SCRIPTED_MODULES_DIRECTORY) + "/" + nameOf(variant) + ".so", File);
}

void setVerifierAnswer(std::function<int(const std::string&)> newAnswer) {
  answer() = std::move(newAnswer);
}

}  // namespace scripted

extern "C" __attribute__((visibility("default"))) int scripted_verifyFile(int reserved, const char* filePath,
                                                                          const char* caller) {
  const std::string path = filePath;
  recording::noteCall("verifyFile(" + std::to_string(reserved) + ", \"" + path + "\", \"" + caller + "\")");
  if (scripted::answer()) {
    return scripted::answer()(path);
  }
  return scripted::isSigned(path) ? 1 : 0;
}
