// SPDX-License-Identifier: Apache-2.0
// Updates that must fail, after one that worked: what is refused, and what is active then.
#include <fstream>

#include "counted-version.h"
#include "device-space.h"
#include "trials.h"

namespace fwmodule {
namespace {

constexpr int kFailures = 4;

// False when the good image that worked before did not work now.
bool updateToNewer(const Stage& stage) {
  const std::string& version = stage.subject.newerVersion;
  return update(stage, version, placeGoodImage(stage.subject, version), "with a good image") == 0;
}

void judgeAfterFailure(const Stage& stage, EntryPoint entryPoint, int result, const char* situation) {
  judgeResultCode(stage, entryPoint, result);
  judgeReason(stage, entryPoint, result, situation);
  const std::string active = stage.module.getActiveVersion("after a failed update").text;
  stage.transcript.judge(active == stage.subject.newerVersion, Check::OldFirmware, entryPoint,
                         answered(entryPoint, result) + " " + situation + ", and then \"" + active +
                             "\" was active instead of " + stage.subject.newerVersion + ".");
}

// Again and again, for what is left open on the way out.
void judgeRepeatedFailures(const Stage& stage, const std::string& version, const Image& image,
                           const char* situation) {
  const Census before = takeCensus();
  for (int i = 0; i < kFailures; ++i) {
    update(stage, version, image, situation);
  }
  judgeLeftovers(stage, before, EntryPoint::DoUpdate, "after updates " + std::string(situation));
}

void tryBadImage(const Stage& stage, Check check, const std::string& version, const Image& image,
                 const char* situation) {
  const int result = update(stage, version, image, situation);
  stage.transcript.judge(result != 0, check, EntryPoint::DoUpdate,
                         "doUpdate answered 0 " + std::string(situation) + ".");
  if (result == 0) {
    return;
  }
  judgeAfterFailure(stage, EntryPoint::DoUpdate, result, situation);
  judgeRepeatedFailures(stage, version, image, situation);
}

std::string corrupted(std::string bytes) {
  char& byte = bytes[bytes.size() / 2];
  byte = static_cast<char>(byte ^ 1);
  return bytes;
}

}  // namespace

void tryMissingImage(const Stage& stage) {
  if (!updateToNewer(stage)) {
    return;
  }
  const std::string version = countedUp(stage.subject.newerVersion);
  Image image = placeGoodImage(stage.subject, version);
  image.path += ".missing";
  tryBadImage(stage, Check::ImageMissing, version, image, "with a missing image");
}

void tryEmptyImage(const Stage& stage) {
  if (!updateToNewer(stage)) {
    return;
  }
  const std::string version = countedUp(stage.subject.newerVersion);
  tryBadImage(stage, Check::ImageEmpty, version, placeImage(stage.subject, version, "", ""),
              "with an empty image");
}

void tryCorruptImage(const Stage& stage) {
  if (!updateToNewer(stage)) {
    return;
  }
  const std::string version = countedUp(stage.subject.newerVersion);
  const std::string good = imageBytes(stage.subject, version);
  tryBadImage(stage, Check::ImageCorrupt, version, placeImage(stage.subject, version, corrupted(good), good),
              "with a corrupt image");
}

// A module that keeps its firmware in the device's files cannot write another one when
// they are full; one that says so all the same has not looked.
void tryFullDisk(const Stage& stage) {
  const std::string version = countedUp(stage.subject.newerVersion);
  const Image image = placeGoodImage(stage.subject, stage.subject.newerVersion);
  const std::uint64_t before = usedSpace();
  if (!updateToNewer(stage)) {
    return;
  }
  if (usedSpace() < before + image.size) {
    stage.transcript.notChecked(Check::FullDisk, "its firmware is not kept in files of the device");
    return;
  }
  const Image next = placeGoodImage(stage.subject, version);
  leaveNoSpace();
  const int result = update(stage, version, next, "on a full disk");
  const bool kept = usedSpace() >= before + image.size;
  const std::string active = stage.module.getActiveVersion("after an update on a full disk").text;
  const bool truth = result != 0 || (kept && (active == version || stage.subject.image));
  stage.transcript.judge(truth, Check::FullDisk, EntryPoint::DoUpdate,
                         "doUpdate answered 0 on a full disk, and the new firmware is not there.");
  if (result != 0) {
    judgeAfterFailure(stage, EntryPoint::DoUpdate, result, "on a full disk");
  }
}

void tryUsbPackage(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  if (!stage.module.has(EntryPoint::DoUpdateDecryption)) {
    transcript.notChecked(Check::Decryption, "it does not export doUpdate_decryption");
    return;
  }
  const std::string& version = stage.subject.newerVersion;
  stage.module.setContext(CALLER_USB_PACKAGE, "", "before a USB package");
  stage.module.checkVersion(version, "before a USB package");
  const int result = stage.module.doUpdateDecryption(imageBytes(stage.subject, version), "with a good image");
  const std::string active = stage.module.getActiveVersion("after a USB package").text;
  transcript.judge(result == 0 && active == version, Check::Decryption, EntryPoint::DoUpdateDecryption,
                   answered(EntryPoint::DoUpdateDecryption, result) + " for a good image of version " +
                       version + ", and \"" + active + "\" is active.");
  if (result != 0) {
    return;
  }
  const int empty = stage.module.doUpdateDecryption("", "with an empty image");
  transcript.judge(empty != 0, Check::ImageEmpty, EntryPoint::DoUpdateDecryption,
                   "doUpdate_decryption answered 0 with an empty image.");
  judgeReason(stage, EntryPoint::DoUpdateDecryption, empty, "with an empty image");
}

}  // namespace fwmodule
