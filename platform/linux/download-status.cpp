// SPDX-License-Identifier: Apache-2.0
#include "download-status.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>

#include "whole-file.h"

namespace fwplatform {
namespace {

constexpr std::size_t kLargestStatus = std::size_t{64} * 1024;

struct StateName {
  DownloadState state;
  const char* name;
};

constexpr StateName kStateNames[] = {
    {DownloadState::Running, "running"},
    {DownloadState::Done, "done"},
    {DownloadState::Failed, "failed"},
};

const char* nameOf(DownloadState state) {
  for (const StateName& entry : kStateNames) {
    if (entry.state == state) {
      return entry.name;
    }
  }
  return "";
}

std::string statusFile(const std::string& name) {
  return name + ".json";
}

std::string lockFile(const std::string& name) {
  return name + ".lock";
}

struct flock wholeFile() {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return whole;
}

Json::Value toJson(const std::string& name, const DownloadStatus& status) {
  Json::Value document;
  document["package"] = name;
  document["state"] = nameOf(status.state);
  document["received"] = static_cast<Json::Int64>(status.received);
  if (status.total != kUnknownSize) {
    document["total"] = static_cast<Json::Int64>(status.total);
  }
  if (const auto percent = status.percent()) {
    document["percent"] = *percent;
  }
  if (status.state == DownloadState::Failed) {
    document["reason"] = status.reason;
    document["message"] = status.message;
    document["remedy"] = status.remedy;
  }
  return document;
}

std::optional<DownloadStatus> fromJson(const Json::Value& document) {
  DownloadStatus status;
  const std::string state = document["state"].asString();
  const auto* const known = std::find_if(std::begin(kStateNames), std::end(kStateNames),
                                         [&](const StateName& entry) { return state == entry.name; });
  if (known == std::end(kStateNames)) {
    return std::nullopt;
  }
  status.state = known->state;
  status.received = document["received"].asInt64();
  status.total = document.get("total", static_cast<Json::Int64>(kUnknownSize)).asInt64();
  status.reason = document["reason"].asString();
  status.message = document["message"].asString();
  status.remedy = document["remedy"].asString();
  return status;
}

base::FileDescriptor openForReading() {
  return base::FileDescriptor(open(kDownloadStatusDirectory, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

std::optional<unsigned int> DownloadStatus::percent() const {
  if (total <= 0) {
    return std::nullopt;
  }
  return static_cast<unsigned int>(std::clamp<std::int64_t>(received, 0, total) * 100 / total);
}

int openDownloadStatusDirectory(base::FileDescriptor& directory) {
  if (mkdir(kDownloadStatusDirectory, 0755) != 0 && errno != EEXIST) {
    return errno;
  }
  directory = openForReading();
  return directory ? 0 : errno;
}

int lockDownload(int statusDirectory, const std::string& name, base::FileDescriptor& lock) {
  lock.reset(
      openat(statusDirectory, lockFile(name).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!lock) {
    return errno;
  }
  // Of the open file, not of the process: a child that is forked keeps it.
  struct flock whole = wholeFile();
  if (fcntl(lock.get(), F_OFD_SETLK, &whole) != 0) {
    return errno == EACCES ? EAGAIN : errno;
  }
  return 0;
}

int writeDownloadStatus(int statusDirectory, const std::string& name, const DownloadStatus& status) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string text = Json::writeString(builder, toJson(name, status)) + "\n";
  return base::replaceFileAt(statusDirectory, statusFile(name), text, false);
}

std::optional<DownloadStatus> readDownloadStatus(const std::string& name) {
  const base::FileDescriptor directory = openForReading();
  std::string text;
  if (!directory || base::readFileAt(directory.get(), statusFile(name), kLargestStatus, text) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr) || !document.isObject()) {
      return std::nullopt;
    }
    return fromJson(document);
  } catch (const Json::Exception&) {  // nested too deeply, or a member of another type
    return std::nullopt;
  }
}

bool isDownloadRunning(const std::string& name) {
  const base::FileDescriptor directory = openForReading();
  const base::FileDescriptor lock(
      directory ? openat(directory.get(), lockFile(name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1);
  struct flock whole = wholeFile();
  return lock && fcntl(lock.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

}  // namespace fwplatform
