// SPDX-License-Identifier: Apache-2.0
// checkVersion with versions of every kind.
#include "counted-version.h"
#include "trials.h"

namespace fwmodule {
namespace {

std::string describe(const NumberAnswer<int>& need) {
  if (need.result != 0) {
    return answered(EntryPoint::CheckVersion, need.result);
  }
  return need.written ? "checkVersion wrote " + std::to_string(need.value) : "checkVersion wrote nothing";
}

// Tells about an answer that no version should get.
void judgeAnswer(const Stage& stage, const std::string& version, const NumberAnswer<int>& need) {
  if (need.result != 0) {
    return;
  }
  const std::string sentence = describe(need) + " for version \"" + version + "\".";
  stage.transcript.judge(need.written, Check::Need, EntryPoint::CheckVersion, sentence);
  stage.transcript.judge(need.value == 0 || need.value == 1, Check::NeedValue, EntryPoint::CheckVersion,
                         sentence);
}

bool isNeeded(const NumberAnswer<int>& need) {
  return need.result == 0 && need.value > 0;
}

void tryNewer(const Stage& stage) {
  const Subject& subject = stage.subject;
  const std::vector<std::string> candidates = subject.version.empty()
                                                  ? newerVersions(subject.activeVersion)
                                                  : std::vector<std::string>{subject.version};
  std::string answers;
  for (const std::string& version : candidates) {
    const auto need = stage.module.checkVersion(version, "given a newer version");
    judgeAnswer(stage, version, need);
    if (isNeeded(need)) {
      stage.transcript.passed(Check::VersionNewer);
      stage.transcript.fact(Fact::NewerVersion, version);
      return;
    }
    answers += (answers.empty() ? "" : "; ") + describe(need) + " for version \"" + version + "\"";
  }
  stage.transcript.finding(Check::VersionNewer, EntryPoint::CheckVersion,
                           answers + ", while " + subject.activeVersion + " is active.");
}

}  // namespace

void tryVersions(const Stage& stage) {
  const std::string& active = stage.subject.activeVersion;
  stage.module.setContext(CALLER_QUERY, "", "before a version query");
  const auto same = stage.module.checkVersion(active, "given the active version");
  judgeAnswer(stage, active, same);
  stage.transcript.judge(!isNeeded(same), Check::VersionEqual, EntryPoint::CheckVersion,
                         describe(same) + " for the active version " + active + ".");
  tryNewer(stage);
}

void tryOddVersions(const Stage& stage) {
  struct Odd {
    Check check;
    const char* situation;
    std::string version;
  };
  const Odd odds[] = {
      {Check::VersionEmpty, "given an empty version", ""},
      {Check::VersionNonsense, "given what is no version", "not-a-version"},
      {Check::VersionNonsense, "given what is no version", "???"},
      {Check::VersionNonsense, "given bytes that are no text", "\xff\xfe\x80\x01"},
      {Check::VersionNonsense, "given the signs of a format", "%s%s%s%s%n"},
  };
  for (const Odd& odd : odds) {
    const auto need = stage.module.checkVersion(odd.version, odd.situation);
    stage.transcript.judge(!isNeeded(need), odd.check, EntryPoint::CheckVersion,
                           describe(need) + " for \"" + odd.version + "\".");
  }
  // Newer or not is the module's to say; it only must get through it.
  constexpr std::size_t kTooLong = 1000;
  stage.module.checkVersion(std::string(kTooLong, '9'), "given a version of 1000 characters");
}

}  // namespace fwmodule
