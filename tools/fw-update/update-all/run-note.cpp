// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-note.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <utility>

#include "lock/lock-users.h"
#include "lock/run-directory.h"
#include "lock/update-lock.h"
#include "whole-file.h"

namespace tool {
namespace {

using base::FileDescriptor;

constexpr const char* kLockFile = "update-all.lock";
constexpr const char* kNoteFile = "update-all.json";
constexpr std::size_t kGreatestNote = std::size_t{1024} * 1024;

Json::Value parseNote(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value note;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &note, &errors) || !note.isObject() ||
      !note["modules"].isArray() || !note["number"].isUInt()) {
    return {};
  }
  for (const Json::Value& module : note["modules"]) {
    if (!module.isString()) {
      return {};
    }
  }
  return note;
}

// An update that was killed cannot have given it back; one that lives will.
bool mayBeLeftTaken() {
  const UpdateLock lock;
  return lock.error() == 0 && lock.value() == 0 && !findLockUsers(lock).has(LockRole::MayHold);
}

Finding describe(const Json::Value& note) {
  const Json::Value& modules = note["modules"];
  const unsigned int number = note["number"].asUInt();
  const std::string current = number > 0 && number <= modules.size() ? modules[number - 1].asString() : "";
  std::string left;
  for (Json::ArrayIndex i = number > 0 ? number - 1 : 0; i < modules.size(); ++i) {
    left += (left.empty() ? "" : ", ") + modules[i].asString();
  }
  Finding finding;
  finding.outcome = Outcome::Stopped;
  finding.message = "The last update-all was interrupted ";
  finding.message += current.empty() ? "before its first module"
                                     : "at " + current + " (" + std::to_string(number) + " of " +
                                           std::to_string(modules.size()) + ")";
  finding.message += ". Not updated, or not for certain: " + left + ".";
  if (mayBeLeftTaken()) {
    finding.remedy = "It may have left the update lock taken; give it back: fw-update lock recover. ";
  }
  finding.remedy += "Run it again, it takes up what is left: fw-update update-all";
  if (!current.empty()) {
    finding.remedy += ". Check the version with: fw-update info " + current;
  }
  return finding;
}

}  // namespace

// A run without a note is better than none.
RunNote::RunNote() : directory_(makeRunDirectory()) {
  if (directory_) {
    lock_ = openOwnLockFile(directory_, kLockFile);
  }
  busy_ = lock_ && flock(lock_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// An exception that ends the command is told by the command itself.
RunNote::~RunNote() {
  if (std::uncaught_exceptions() > exceptionsBefore_) {
    finished();
  }
}

void RunNote::runStarted(std::vector<std::string> names) {
  moduleStarted(0, std::move(names));
}

void RunNote::moduleStarted(std::size_t number, std::vector<std::string> names) {
  libraries_ = std::move(names);
  write(number);
}

void RunNote::finished() {
  if (directory_ && !busy_) {
    unlinkat(directory_.get(), kNoteFile, 0);
  }
}

void RunNote::write(std::size_t number) const {
  if (!directory_) {
    return;
  }
  Json::Value note;
  note["number"] = static_cast<Json::UInt>(number);
  note["modules"] = Json::arrayValue;
  for (const std::string& library : libraries_) {
    note["modules"].append(library);
  }
  base::replaceFileAt(directory_.get(), kNoteFile, Json::writeString(Json::StreamWriterBuilder(), note),
                      false);
}

std::optional<Finding> takeInterruptedRun() {
  const FileDescriptor directory = openRunDirectory();
  if (!directory) {
    return std::nullopt;
  }
  std::optional<Finding> finding;
  const FileDescriptor lock(openat(directory.get(), kLockFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  // A run that begins now is not kept away when there is no note.
  const bool isNoted = faccessat(directory.get(), kNoteFile, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
  if (isNoted && lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
    std::string text;
    const int error = base::readFileAt(directory.get(), kNoteFile, kGreatestNote, text);
    const Json::Value note = error == 0 ? parseNote(text) : Json::Value();
    if (note.isObject()) {
      finding = describe(note);
    }
    unlinkat(directory.get(), kNoteFile, 0);
  }
  return finding;
}

}  // namespace tool
