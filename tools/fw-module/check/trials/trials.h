// SPDX-License-Identifier: Apache-2.0
// The trials, in one table: each runs in a child process and on a device of its own. The
// order matters: later ones use what earlier ones found out, and what breaks the module
// comes last.
#ifndef FW_MODULE_CHECK_TRIALS_TRIALS_H
#define FW_MODULE_CHECK_TRIALS_TRIALS_H

#include <cstdint>

#include "stage.h"

namespace fwmodule {

void tryIdentity(const Stage& stage);
void tryRepeatedCalls(const Stage& stage);
void tryConcurrentCalls(const Stage& stage);
void tryVersions(const Stage& stage);
void tryUpdate(const Stage& stage);
void tryImageVersion(const Stage& stage);
void tryOwnProcedure(const Stage& stage);
void tryMissingImage(const Stage& stage);
void tryEmptyImage(const Stage& stage);
void tryCorruptImage(const Stage& stage);
void tryFullDisk(const Stage& stage);
void tryPowerCut(const Stage& stage);
void tryUsbPackage(const Stage& stage);
void tryAllDone(const Stage& stage);
void tryOddVersions(const Stage& stage);
void tryUnloading(const Stage& stage);
[[noreturn]] void tryProcessEnd(const Stage& stage);

// What stands in a trial's way with this module: why its checks are not made, or nothing
// when others make them. Null when nothing does.
using Obstacle = const char* (*)(const Subject& subject);
const char* nothing(const Subject& subject);
const char* isExtension(const Subject& subject);
const char* isOrdinary(const Subject& subject);
const char* knowsNoVersion(const Subject& subject);
const char* takesNoVersion(const Subject& subject);
const char* takesNoImage(const Subject& subject);
const char* cutsNoPower(const Subject& subject);

using CheckSet = std::uint64_t;
static_assert(kCheckCount <= 64, "a bit for each");

template <typename... Checks>
constexpr CheckSet decidesOn(Checks... checks) {
  return (... | (CheckSet{1} << static_cast<unsigned int>(checks)));
}

constexpr bool contains(CheckSet set, Check check) {
  return (set & decidesOn(check)) != 0;
}

struct Trial {
  const char* title;  // follows "checking: "
  void (*run)(const Stage& stage);
  Obstacle obstacle;
  EntryPointSet calls;  // those without which it makes no sense
  CheckSet decides;
};

inline constexpr EntryPointSet kQueries =
    callsTo(EntryPoint::Loading, EntryPoint::SetContext, EntryPoint::GetActiveVersion);
inline constexpr EntryPointSet kUpdates = kQueries | callsTo(EntryPoint::CheckVersion, EntryPoint::DoUpdate);

inline constexpr Trial kTrials[] = {
    {"who it is", tryIdentity, nothing, callsTo(EntryPoint::Loading, EntryPoint::SetContext),
     decidesOn(Check::Loads, Check::Context, Check::TextEnd, Check::Identifier, Check::ExtensionIdentifier,
               Check::ActiveVersion, Check::ExpectedTime, Check::ExpectedTimeLong, Check::ProgressRange)},
    {"the same questions again and again", tryRepeatedCalls, knowsNoVersion,
     kQueries | callsTo(EntryPoint::CheckVersion), decidesOn(Check::SameAnswer)},
    {"questions from several threads", tryConcurrentCalls, knowsNoVersion,
     kQueries | callsTo(EntryPoint::CheckVersion), decidesOn(Check::SameAnswer)},
    {"versions", tryVersions, knowsNoVersion, kQueries | callsTo(EntryPoint::CheckVersion),
     decidesOn(Check::Need, Check::NeedValue, Check::VersionNewer, Check::VersionEqual)},
    {"a good image", tryUpdate, takesNoVersion, kUpdates,
     decidesOn(Check::Update, Check::UpdateVersion, Check::VersionOlder, Check::ProgressFalls,
               Check::QueryWaits, Check::Descriptors, Check::Threads)},
    {"a query between the question and the update", tryImageVersion, takesNoImage, kUpdates,
     decidesOn(Check::ImageVersion)},
    {"its own procedure", tryOwnProcedure, isOrdinary, kQueries | callsTo(EntryPoint::DoUpdate),
     decidesOn(Check::ResultCode, Check::Reason, Check::ProgressFalls, Check::QueryWaits, Check::Descriptors,
               Check::Threads)},
    {"a missing image", tryMissingImage, takesNoImage, kUpdates,
     decidesOn(Check::ImageMissing, Check::OldFirmware, Check::ResultCode, Check::Reason)},
    {"an empty image", tryEmptyImage, takesNoImage, kUpdates,
     decidesOn(Check::ImageEmpty, Check::OldFirmware, Check::ResultCode, Check::Reason)},
    {"a corrupt image", tryCorruptImage, takesNoImage, kUpdates,
     decidesOn(Check::ImageCorrupt, Check::OldFirmware, Check::ResultCode, Check::Reason)},
    {"a full disk", tryFullDisk, takesNoImage, kUpdates,
     decidesOn(Check::FullDisk, Check::OldFirmware, Check::ResultCode, Check::Reason)},
    {"a power cut", tryPowerCut, cutsNoPower, kUpdates, decidesOn(Check::PowerCut)},
    {"the image of a USB package", tryUsbPackage, takesNoVersion,
     kQueries | callsTo(EntryPoint::CheckVersion, EntryPoint::DoUpdateDecryption),
     decidesOn(Check::Decryption, Check::Reason)},
    {"the end of a run over all modules", tryAllDone, nothing,
     callsTo(EntryPoint::Loading, EntryPoint::SetContext, EntryPoint::AllUpdateDone),
     decidesOn(Check::AllDone)},
    {"texts that are no versions", tryOddVersions, knowsNoVersion,
     kQueries | callsTo(EntryPoint::CheckVersion), decidesOn(Check::VersionEmpty, Check::VersionNonsense)},
    {"unloading", tryUnloading, nothing, kQueries, 0},
    {"the end of the process", tryProcessEnd, nothing, kQueries, 0},
};

}  // namespace fwmodule

#endif
