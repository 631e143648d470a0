#include "update-all/run-note.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <utility>

#include "lock/run-directory.h"
#include "lock/update-lock.h"

namespace tool {
namespace {

using base::FileDescriptor;

constexpr const char* kLockFile = "update-all.lock";
constexpr const char* kNoteFile = "update-all.json";
constexpr const char* kUnfinishedFile = "update-all.json.new";
constexpr std::size_t kGreatestNote = std::size_t{1024} * 1024;

bool writeAll(int file, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t written = ::write(file, text.data() + at, text.size() - at);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    at += static_cast<std::size_t>(written);
  }
  return true;
}

std::string readAll(int file) {
  std::string text;
  char block[4096];
  for (ssize_t count = 0; text.size() < kGreatestNote && (count = read(file, block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(count));
  }
  return text;
}

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

// An update that was killed cannot have given it back.
bool updateLockIsTaken() {
  const UpdateLock lock;
  return lock.error() == 0 && lock.value() == 0;
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
  if (updateLockIsTaken()) {
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
  const FileDescriptor file(
      openat(directory_.get(), kUnfinishedFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) {
    return;
  }
  // One rename, so that there is a whole note at every moment.
  if (!writeAll(file.get(), Json::writeString(Json::StreamWriterBuilder(), note)) ||
      renameat(directory_.get(), kUnfinishedFile, directory_.get(), kNoteFile) != 0) {
    unlinkat(directory_.get(), kUnfinishedFile, 0);
  }
}

std::optional<Finding> takeInterruptedRun() {
  const FileDescriptor directory = openRunDirectory();
  if (!directory) {
    return std::nullopt;
  }
  std::optional<Finding> finding;
  const FileDescriptor lock(openat(directory.get(), kLockFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  const FileDescriptor file(
      openat(directory.get(), kNoteFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file && lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
    const Json::Value note = parseNote(readAll(file.get()));
    if (note.isObject()) {
      finding = describe(note);
    }
    unlinkat(directory.get(), kNoteFile, 0);
    unlinkat(directory.get(), kUnfinishedFile, 0);
  }
  return finding;
}

}  // namespace tool
