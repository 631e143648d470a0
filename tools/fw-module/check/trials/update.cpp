// SPDX-License-Identifier: Apache-2.0
// Updates that should work, and the procedure of an EXT- module.
#include "counted-version.h"
#include "trials.h"
#include "update-watch.h"

namespace fwmodule {
namespace {

constexpr char kGoodImage[] = "with a good image";
constexpr char kOwnProcedure[] = "as its own procedure";

WatchedUpdate watchedUpdate(const Stage& stage, const std::string& version) {
  const Image image = placeGoodImage(stage.subject, version, kWatchedImage);
  WatchedUpdate refused;
  refused.result = stage.module.setContext(CALLER_UPGRADE_APP, "", "before an update");
  if (refused.result != 0) {
    return refused;
  }
  refused.result = stage.module.checkVersion(version, "before an update").result;
  return refused.result != 0 ? refused : watchUpdate(stage, image.path, image.crc, kGoodImage);
}

// What checkVersion may say about that version, now that it is not the newest any more.
void judgeNotNeeded(const Stage& stage, Check check, const std::string& version, const std::string& active) {
  const auto need = stage.module.checkVersion(version, "after an update");
  stage.transcript.judge(need.result != 0 || need.value <= 0, check, EntryPoint::CheckVersion,
                         "checkVersion wrote " + std::to_string(need.value) + " for version \"" + version +
                             "\" while " + active + " is active.");
}

void judgeSecondUpdate(const Stage& stage, const std::string& version) {
  const Census before = takeCensus();
  const int result =
      update(stage, version, placeGoodImage(stage.subject, version), "with a second good image");
  stage.transcript.judge(result == 0, Check::Update, EntryPoint::DoUpdate,
                         answered(EntryPoint::DoUpdate, result) + " for the second good image.");
  judgeLeftovers(stage, before, EntryPoint::DoUpdate, "after an update");
}

}  // namespace

void tryUpdate(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  std::string version = stage.subject.newerVersion;
  const WatchedUpdate first = watchedUpdate(stage, version);
  transcript.judge(first.result == 0, Check::Update, EntryPoint::DoUpdate,
                   answered(EntryPoint::DoUpdate, first.result) + " for a good image.");
  if (first.result != 0) {
    judgeResultCode(stage, EntryPoint::DoUpdate, first.result);
    return;
  }
  judgeProgress(stage, first);
  const std::string active = stage.module.getActiveVersion("after an update").text;
  transcript.judge(
      active == version, Check::UpdateVersion, EntryPoint::GetActiveVersion,
      "doUpdate answered 0 for version " + version + ", and getActiveVersion wrote \"" + active + "\".");
  if (active != version) {
    return;
  }
  transcript.fact(Fact::Updates, "yes");
  judgeNotNeeded(stage, Check::VersionEqual, version, active);
  judgeNotNeeded(stage, Check::VersionOlder, stage.subject.activeVersion, active);
  judgeWaits(stage, first, [&] { return watchedUpdate(stage, version = countedUp(version)); });
  judgeSecondUpdate(stage, countedUp(version));
}

// As when another thread asks about a package of a newer version after the decision.
void tryImageVersion(const Stage& stage) {
  const std::string& version = stage.subject.newerVersion;
  const std::string other = countedUp(version);
  const Image image = placeGoodImage(stage.subject, version);
  stage.module.setContext(CALLER_UPGRADE_APP, "", "before an update");
  stage.module.checkVersion(version, "before an update");
  stage.module.checkVersion(other, "as a query before an update");
  if (stage.module.doUpdate(image.path, image.crc, "after a query about another version") != 0) {
    return;
  }
  const std::string active = stage.module.getActiveVersion("after an update").text;
  stage.transcript.judge(active == version, Check::ImageVersion, EntryPoint::DoUpdate,
                         "doUpdate answered 0 for version " + version + ", and \"" + active +
                             "\" is active: checkVersion was asked about " + other + " in between.");
}

// Whatever comes of it: the module decides itself, and there may be no image.
void tryOwnProcedure(const Stage& stage) {
  constexpr int kTimes = 3;
  const std::string& library = stage.subject.library;
  stage.module.setContext(CALLER_UPGRADE_APP, "", "before its own procedure");
  const WatchedUpdate first = watchUpdate(stage, library, 0, kOwnProcedure);
  judgeResultCode(stage, EntryPoint::DoUpdate, first.result);
  judgeReason(stage, EntryPoint::DoUpdate, first.result, kOwnProcedure);
  judgeProgress(stage, first);
  judgeWaits(stage, first, [&] { return watchUpdate(stage, library, 0, kOwnProcedure); });
  const Census before = takeCensus();
  for (int i = 0; i < kTimes; ++i) {
    stage.module.doUpdate(library, 0, "as its own procedure, again");
  }
  judgeLeftovers(stage, before, EntryPoint::DoUpdate, "after its own procedure");
}

}  // namespace fwmodule
