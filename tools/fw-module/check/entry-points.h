// SPDX-License-Identifier: Apache-2.0
// The entry points of a module, as a table, and the other places where its code runs.
#ifndef FW_MODULE_CHECK_ENTRY_POINTS_H
#define FW_MODULE_CHECK_ENTRY_POINTS_H

#include <cstddef>
#include <cstdint>

namespace fwmodule {

enum class EntryPoint : std::uint8_t {
  SetContext,
  GetEmpId,
  GetActiveVersion,
  CheckVersion,
  DoUpdate,
  AllUpdateDone,
  DoUpdateDecryption,
  GetExpectedTime,
  GetUpdateProgress,
  // No entry points: a module's code runs here too.
  Loading,
  Unloading,
  ProcessEnd,
  Nowhere,
};

struct EntryPointInfo {
  EntryPoint entryPoint;
  const char* name;
  bool exported;
  bool required;
};

inline constexpr EntryPointInfo kEntryPoints[] = {
    {EntryPoint::SetContext, "setContext", true, true},
    {EntryPoint::GetEmpId, "getEMPID", true, true},
    {EntryPoint::GetActiveVersion, "getActiveVersion", true, true},
    {EntryPoint::CheckVersion, "checkVersion", true, true},
    {EntryPoint::DoUpdate, "doUpdate", true, true},
    {EntryPoint::AllUpdateDone, "allUpdateDone", true, false},
    {EntryPoint::DoUpdateDecryption, "doUpdate_decryption", true, false},
    {EntryPoint::GetExpectedTime, "getExpectedTime", true, false},
    {EntryPoint::GetUpdateProgress, "getUpdateProgress", true, false},
    {EntryPoint::Loading, "loading", false, false},
    {EntryPoint::Unloading, "unloading", false, false},
    {EntryPoint::ProcessEnd, "the end of the process", false, false},
    {EntryPoint::Nowhere, "", false, false},
};

inline constexpr std::size_t kEntryPointCount = sizeof kEntryPoints / sizeof kEntryPoints[0];

constexpr const EntryPointInfo& infoOf(EntryPoint entryPoint) {
  return kEntryPoints[static_cast<std::size_t>(entryPoint)];
}

constexpr bool inOrder() {
  for (std::size_t i = 0; i < kEntryPointCount; ++i) {
    if (static_cast<std::size_t>(kEntryPoints[i].entryPoint) != i) {
      return false;
    }
  }
  return true;
}
static_assert(inOrder(), "infoOf finds an entry point at its own place");

using EntryPointSet = std::uint32_t;
static_assert(kEntryPointCount <= 32, "a bit for each");

template <typename... EntryPoints>
constexpr EntryPointSet callsTo(EntryPoints... entryPoints) {
  return (... | (EntryPointSet{1} << static_cast<unsigned int>(entryPoints)));
}

constexpr bool contains(EntryPointSet set, EntryPoint entryPoint) {
  return (set & callsTo(entryPoint)) != 0;
}

}  // namespace fwmodule

#endif
