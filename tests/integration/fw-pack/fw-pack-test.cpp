// SPDX-License-Identifier: Apache-2.0
#include "fw-pack-test.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "files.h"
#include "firmware-image.h"

namespace fs = std::filesystem;

void PackTest::SetUp() {
  DeviceTest::SetUp();
  fs::create_directories(kWork);
  write("image.bin", image());
}

ProgramResult PackTest::run(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {FW_PACK_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runProgram({command, kWork, 0, {}});
}

Json::Value PackTest::document(std::vector<std::string> arguments, int exitCode) {
  arguments.emplace_back("--json");
  const ProgramResult result = run(arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.error;
  Json::Value document;
  std::istringstream(result.output) >> document;
  return document;
}

void PackTest::write(const std::string& name, const std::string& content, int mode) {
  writeFile(kWork + name, content);
  fs::permissions(kWork + name, fs::perms(mode));
}

std::vector<std::string> PackTest::filesInWork() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kWork)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string PackTest::image() {
  return sandbox::imageContent("tunerfw", "2.0.0", 100001);
}

void PackTest::writeKeys(int mode) {
  write("package.key", std::string(32, 'K'), mode);
  const fwpack::SigningKey& key = testSigningKey("ed25519");
  fwpack::OutputFile secret(std::string(kWork) + "maker.key", static_cast<mode_t>(mode));
  key.writePrivatePem(secret);
  secret.commit();
  write("maker.pem", publicPem(key));
}

std::vector<std::string> PackTest::usbCommand(const std::string& output) {
  return {"usb",         "image.bin",     "--version", "2.0.0", "--key-file",
          "package.key", "--signing-key", "maker.key", "-o",    output};
}
