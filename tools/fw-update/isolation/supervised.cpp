// SPDX-License-Identifier: Apache-2.0
#include "isolation/supervised.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <mutex>

#include "library-messages.h"
#include "library/library-log.h"
#include "update-tracker.h"

namespace tool::supervised {
namespace {

using fwmessages::Activity;

constexpr struct {
  Activity activity;
  Step step;
} kSteps[] = {
    {Activity::Check, Step::Check},     {Activity::Wait, Step::Wait},
    {Activity::Write, Step::Write},     {Activity::Procedure, Step::Procedure},
    {Activity::Package, Step::Package}, {Activity::Finish, Step::Finish},
};

struct Self {
  explicit Self(ChildRecord& mine) : record(mine) { tracker.turnTo(moduleOf(mine)); }

  std::mutex mutex;
  ChildRecord& record;
  fwmessages::UpdateTracker tracker;
};

// Null when nobody watches. Never destroyed: the library logs in its last destructors.
Self* self = nullptr;

bool isUpdated(const fwmessages::UpdateTracker& tracker, const std::string& module) {
  const auto& updates = tracker.updates();
  return std::any_of(updates.begin(), updates.end(), [&module](const fwmessages::Update& update) {
    return update.module == module && update.result == fwmessages::Result::Updated;
  });
}

// With the mutex held.
void put(Step step, const std::string& module) {
  ChildRecord& record = self->record;
  const std::size_t length = module.copy(record.module, sizeof record.module - 1);
  record.module[length] = '\0';
  record.updated = isUpdated(self->tracker, module) ? 1 : 0;
  record.step = step;
}

void putMount(const LogMessage& message) {
  if (message.format != MESSAGE_MOUNT_REQUESTED || message.arguments.empty()) {
    return;
  }
  const std::string& words = message.arguments[0];  // the directory is the last
  const std::string line = words.substr(words.rfind(' ') + 1) + "\n";
  char* const mounted = self->record.mounted;
  const std::size_t used = strnlen(mounted, sizeof self->record.mounted);
  if (used + line.size() < sizeof self->record.mounted) {
    line.copy(mounted + used, line.size());
  }
}

void putLimit(const fwmessages::Logged& logged) {
  if (logged.event != fwmessages::Event::LockWanted) {
    return;
  }
  const auto& limit = self->tracker.updates().back().limit;
  self->record.usedLock = 1;
  self->record.givesUpAt = limit ? limit->givesUp + 1 : 0;
}

void putActivity(const fwmessages::Logged& logged) {
  const auto activity = fwmessages::activityAfter(logged.event);
  const auto* const row = std::find_if(std::begin(kSteps), std::end(kSteps),
                                       [&activity](const auto& one) { return one.activity == activity; });
  if (row != std::end(kSteps)) {
    put(row->step, self->tracker.module());
  }
}

}  // namespace

void begin(ChildRecord& record) {
  self = new Self(record);
}

bool isSupervised() {
  return self != nullptr;
}

void tellStep(Step step, const std::string& module, const std::string& firmware) {
  if (!isSupervised()) {
    return;
  }
  const std::lock_guard lock(self->mutex);
  if (!firmware.empty()) {
    self->tracker.learnModule(firmware, module);
  }
  self->tracker.turnTo(module);
  put(step, module);
  ++self->record.told;
}

void tellMessage(const LogMessage& message) {
  if (!isSupervised()) {
    return;
  }
  const std::lock_guard lock(self->mutex);
  const fwmessages::Logged logged = loggedOf(message);
  self->tracker.take(logged);
  putLimit(logged);
  putActivity(logged);
  putMount(message);
  ++self->record.told;
}

void tellProgress(bool isAsked) {
  if (isSupervised()) {
    self->record.askedForProgress = isAsked ? 1 : 0;
  }
}

void tellResult(int exitCode) {
  if (!isSupervised()) {
    return;
  }
  self->record.result = static_cast<std::uint32_t>(exitCode) + 1;
  self->record.step = Step::End;
  ++self->record.told;
}

}  // namespace tool::supervised
