// SPDX-License-Identifier: Apache-2.0
#include "stage.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "firmware-image.h"
#include "image-information.h"
#include "lent-memory.h"
#include "module-log.h"

namespace fwmodule {
namespace fs = std::filesystem;
namespace {

constexpr char kImages[] = "/lib/firmware/ext/";
constexpr unsigned int kExpectedSeconds = 30;

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
    throw std::runtime_error("cannot write " + path + " on the device");
  }
}

}  // namespace

std::string imageBytes(const Subject& subject, const std::string& version, std::size_t size) {
  return subject.image ? *subject.image : sandbox::imageContent(subject.firmware, version, size);
}

Image placeImage(const Subject& subject, const std::string& version, const std::string& bytes,
                 const std::string& good) {
  const std::string folder = kImages + subject.firmware;
  fs::create_directories(folder);
  const std::uint32_t crc = image::crcOf(good);
  Image image{folder + "/" + subject.firmware + ".bin", crc, bytes.size()};
  writeFile(image.path, bytes);
  writeFile(folder + "/info.json", image::toText({version, crc, kExpectedSeconds}));
  return image;
}

Image placeGoodImage(const Subject& subject, const std::string& version, std::size_t size) {
  const std::string bytes = imageBytes(subject, version, size);
  return placeImage(subject, version, bytes, bytes);
}

int update(const Stage& stage, const std::string& version, const Image& image, const char* situation) {
  if (const int result = stage.module.setContext(CALLER_UPGRADE_APP, "", "before an update"); result != 0) {
    return result;
  }
  if (const auto need = stage.module.checkVersion(version, "before an update"); need.result != 0) {
    return need.result;
  }
  int result = kThrew;
  std::thread worker([&] {
    const FaultStack stack;
    result = stage.module.doUpdate(image.path, image.crc, situation);
  });
  worker.join();
  return result;
}

void judgeLeftovers(const Stage& stage, const Census& before, EntryPoint entryPoint,
                    const std::string& when) {
  const Census after = takeCensusAfter(before);
  const std::string name = infoOf(entryPoint).name;
  const std::string opened = openedSince(before, after);
  stage.transcript.judge(opened.empty(), Check::Descriptors, entryPoint,
                         name + " left open " + when + ": " + opened + ".");
  stage.transcript.judge(
      after.threads <= before.threads, Check::Threads, entryPoint,
      name + " left " + std::to_string(after.threads - before.threads) + " threads running " + when + ".");
}

std::string answered(EntryPoint entryPoint, int result) {
  const std::string name = infoOf(entryPoint).name;
  return result == kThrew ? name + " let an exception out" : name + " answered " + std::to_string(result);
}

void judgeResultCode(const Stage& stage, EntryPoint entryPoint, int result) {
  stage.transcript.judge(result != 1 && result != -1, Check::ResultCode, entryPoint,
                         answered(entryPoint, result) + " for a failed update.");
}

void judgeReason(const Stage& stage, EntryPoint entryPoint, int result, const std::string& situation) {
  if (result != 0 && result != kThrew) {
    stage.transcript.judge(toldReason(stage.subject.library), Check::Reason, entryPoint,
                           answered(entryPoint, result) + " " + situation + " and did not log why.");
  }
}

}  // namespace fwmodule
