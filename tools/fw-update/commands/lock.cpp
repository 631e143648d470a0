// SPDX-License-Identifier: Apache-2.0
// fw-update lock status, fw-update lock recover
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "commands.h"
#include "commands/texts.h"
#include "lock/lock-recovery.h"
#include "lock/lock-users.h"
#include "lock/update-lock.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

constexpr struct {
  LockRole role;
  const char* id;  // in JSON
  const char* words;
} kRoles[] = {
    {LockRole::MayHold, "may-hold", "may hold it"},
    {LockRole::Waits, "waits", "waits for it"},
    {LockRole::HasOpen, "has-open", "has its file open"},
};

std::string wordsOf(const std::string& id) {
  const auto* const row =
      std::find_if(std::begin(kRoles), std::end(kRoles), [&id](const auto& one) { return id == one.id; });
  return row != std::end(kRoles) ? row->words : id;
}

const auto& infoOf(LockRole role) {
  return *std::find_if(std::begin(kRoles), std::end(kRoles),
                       [role](const auto& row) { return row.role == role; });
}

std::string countText(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::size_t countOf(const LockUsers& users, LockRole role) {
  return static_cast<std::size_t>(std::count_if(users.users.begin(), users.users.end(),
                                                [role](const LockUser& user) { return user.role == role; }));
}

Json::Value usersJson(const LockUsers& users) {
  Json::Value list(Json::arrayValue);
  for (const LockUser& user : users.users) {
    Json::Value value;
    value["pid"] = user.process;
    value["user"] = user.user;
    value["command"] = user.command;
    value["role"] = infoOf(user.role).id;
    list.append(value);
  }
  return list;
}

std::string usersTable(const Json::Value& processes) {
  std::vector<std::vector<std::string>> rows{{"PID", "USER", "LOCK", "COMMAND"}};
  for (const Json::Value& user : processes) {
    rows.push_back(
        {textIn(user, "pid"), textIn(user, "user"), wordsOf(textIn(user, "role")), textIn(user, "command")});
  }
  return rows.size() > 1 ? table(rows, terminalWidth(STDOUT_FILENO)) : "";
}

void addTo(Json::Value& members, const LockUsers& users) {
  members["processes"] = usersJson(users);
  if (!users.blindSpot().empty()) {
    members["blindSpot"] = users.blindSpot();
  }
  for (const pid_t process : users.hidden) {
    members["hiddenProcesses"].append(process);
  }
}

Finding takenFinding(const LockUsers& users) {
  const std::size_t waiting = countOf(users, LockRole::Waits);
  const std::string more =
      waiting == 0 ? "" : " " + countText(waiting, "process waits", "processes wait") + " for it.";
  if (users.has(LockRole::MayHold)) {
    return {Outcome::Ok,
            "The update lock is taken. " +
                countText(countOf(users, LockRole::MayHold), "process", "processes") + " may hold it." + more,
            ""};
  }
  if (users.seesAll()) {
    return {Outcome::Ok, "The update lock is stuck: it is taken, and no process holds it." + more,
            "Give it back: fw-update lock recover"};
  }
  return {Outcome::Ok, "The update lock is taken, by no process that can be seen." + more,
          "If it is stuck, give it back: fw-update lock recover"};
}

Finding findingOf(int value, const LockUsers& users) {
  if (value == 0) {
    return takenFinding(users);
  }
  if (value == 1) {
    return {Outcome::Ok, "The update lock is free.", ""};
  }
  return {Outcome::Ok,
          "The update lock is broken: " + std::to_string(value) + " updates could hold it at once.",
          "When no update runs, remove " + UpdateLock::path() + "; the next update makes it anew."};
}

const char* stateOf(int value, const LockUsers& users) {
  if (value > 0) {
    return value == 1 ? "free" : "broken";
  }
  return users.has(LockRole::MayHold) || !users.seesAll() ? "taken" : "stuck";
}

frame::Report reportOfClosed(int error) {
  frame::Report report = reportOf(explainClosedLock(error));
  if (error == ENOENT) {
    report.details["state"] = "absent";
  }
  return report;
}

frame::Report reportOf(const UpdateLock& lock) {
  const LockUsers users = findLockUsers(lock);
  const int value = lock.value();
  const Finding finding = findingOf(value, users);
  frame::Report report = reportOf(finding);
  report.details["value"] = value;
  report.details["state"] = stateOf(value, users);
  addTo(report.details, users);
  report.body = lockStatusText(report);
  return report;
}

}  // namespace

std::string lockStatusText(const frame::Report& report) {
  if (!report.details.isMember("value")) {  // of no lock that could be opened
    return "";
  }
  std::string text = report.message + "\n";
  for (const std::string& more : {report.remedy, textIn(report.details, "blindSpot")}) {
    if (!more.empty()) {
      text += more + "\n";
    }
  }
  return text + usersTable(report.details["processes"]);
}

frame::Report runLockStatus(const Options&) {
  const UpdateLock lock;
  frame::Report report = lock.error() != 0 ? reportOfClosed(lock.error()) : reportOf(lock);
  report.details["lock"] = UpdateLock::path();
  return report;
}

frame::Report runLockRecover(const Options& options) {
  const Recovery recovery = recoverUpdateLock(options.ignoreHidden);
  const Finding finding = explainRecovery(recovery);
  frame::Report report = reportOf(finding);
  report.details["lock"] = UpdateLock::path();
  addTo(report.details, recovery.users);
  if (finding.outcome == Outcome::LockInUse) {
    report.body = usersTable(report.details["processes"]);
  }
  return report;
}

}  // namespace tool
