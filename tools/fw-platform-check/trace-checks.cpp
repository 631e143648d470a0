// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "checks.h"
#include "program-start.h"
#include "runner.h"
#include "trace-storage.h"

namespace conformance {
namespace {

constexpr unsigned kRecordSize = 64;
constexpr unsigned char kCallKind = 1;

TraceStorage::Storage& storage() {
  return TraceStorage::Manager::Instance().GetStorage();
}

std::uint32_t registeredPlace() {
  const std::uint32_t id = TraceStorage::Manager::Instance().NewLocationId();
  storage().SaveLocation(
      {"platform-check.cpp", 1, id, "registeredPlace", "platform check %d", {{"int", 1, 4}}});
  return id;
}

// Null, when the record is dropped, is right.
unsigned char* writeRecord(std::uint32_t place, unsigned char filling) {
  TraceStorage::Thread* const thread = storage().ThreadHandle();
  unsigned char* const buffer = storage().PrepareCallBuffer(thread, kRecordSize, kCallKind, place);
  if (buffer != nullptr) {
    std::memset(buffer, filling, kRecordSize);
  }
  return buffer;
}

void commit() {
  storage().Commit(storage().ThreadHandle());
}

bool isOff() {
  return TraceStorage::enabled == 0;
}

Finding off() {
  return notChecked("traces are switched off here");
}

}  // namespace

Finding traceKeepsErrno() {
  if (isOff()) {
    return off();
  }
  errno = EXDEV;
  const std::uint32_t place = registeredPlace();
  if (writeRecord(place, 1) != nullptr) {
    commit();
  }
  return errno == EXDEV ? kept() : broken("errno was changed to " + std::to_string(errno));
}

Finding traceNumbersDiffer() {
  std::set<std::uint32_t> seen;
  for (int number = 0; number < 100; ++number) {
    const std::uint32_t id = TraceStorage::Manager::Instance().NewLocationId();
    if (id == 0 || !seen.insert(id).second) {
      return broken("the number " + std::to_string(id) + " was given");
    }
  }
  return kept();
}

Finding traceBuffersAreApart() {
  if (isOff()) {
    return off();
  }
  const std::uint32_t place = registeredPlace();
  unsigned char* const mine = writeRecord(place, 0x11);
  unsigned char* other = nullptr;
  std::thread([&] {
    other = writeRecord(place, 0x22);
    if (other != nullptr) {
      commit();
    }
  }).join();
  if (mine == nullptr) {
    return notChecked("the record was dropped");
  }
  for (unsigned at = 0; at < kRecordSize; ++at) {
    if (mine[at] != 0x11) {
      return broken("another thread wrote into a buffer before its record was committed");
    }
  }
  commit();
  return kept();
}

Finding traceGoesOnInChild() {
  if (isOff()) {
    return off();
  }
  const std::uint32_t place = registeredPlace();
  const pid_t child = startChild([place] {
    if (writeRecord(place, 3) != nullptr) {
      commit();
    }
    return true;
  });
  return base::waitForEnd(child) == 0 ? kept() : broken("a forked child broke off at its first message");
}

}  // namespace conformance
