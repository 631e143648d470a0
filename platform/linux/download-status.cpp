#include "download-status.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>

#include "small-file.h"

namespace fwplatform {
namespace {

constexpr std::size_t kLargestStatus = std::size_t{64} * 1024;

struct StateName {
  DownloadState state;
  const char* name;
};

constexpr StateName kStateNames[] = {
    {DownloadState::kRunning, "running"},
    {DownloadState::kDone, "done"},
    {DownloadState::kFailed, "failed"},
};

const char* NameOf(DownloadState state) {
  for (const StateName& entry : kStateNames) {
    if (entry.state == state) {
      return entry.name;
    }
  }
  return "";
}

std::string StatusFile(const std::string& name) {
  return name + ".json";
}

std::string LockFile(const std::string& name) {
  return name + ".lock";
}

struct flock WholeFile() {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return whole;
}

Json::Value ToJson(const std::string& name, const DownloadStatus& status) {
  Json::Value document;
  document["package"] = name;
  document["state"] = NameOf(status.state);
  document["received"] = static_cast<Json::Int64>(status.received);
  if (status.total != kUnknownSize) {
    document["total"] = static_cast<Json::Int64>(status.total);
  }
  if (const auto percent = status.Percent()) {
    document["percent"] = *percent;
  }
  if (status.state == DownloadState::kFailed) {
    document["reason"] = status.reason;
    document["message"] = status.message;
    document["remedy"] = status.remedy;
  }
  return document;
}

std::optional<DownloadStatus> FromJson(const Json::Value& document) {
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

UniqueFd OpenForReading() {
  return UniqueFd(open(kDownloadStatusDirectory, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

std::optional<unsigned int> DownloadStatus::Percent() const {
  if (total <= 0) {
    return std::nullopt;
  }
  return static_cast<unsigned int>(std::clamp<std::int64_t>(received, 0, total) * 100 / total);
}

int OpenDownloadStatusDirectory(UniqueFd& directory) {
  if (mkdir(kDownloadStatusDirectory, 0755) != 0 && errno != EEXIST) {
    return errno;
  }
  directory = OpenForReading();
  return directory ? 0 : errno;
}

int LockDownload(int statusDirectory, const std::string& name, UniqueFd& lock) {
  lock.reset(
      openat(statusDirectory, LockFile(name).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!lock) {
    return errno;
  }
  // Of the open file, not of the process: a child that is forked keeps it.
  struct flock whole = WholeFile();
  if (fcntl(lock.get(), F_OFD_SETLK, &whole) != 0) {
    return errno == EACCES ? EAGAIN : errno;
  }
  return 0;
}

int WriteDownloadStatus(int statusDirectory, const std::string& name, const DownloadStatus& status) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string text = Json::writeString(builder, ToJson(name, status)) + "\n";
  return ReplaceSmallFileAt(statusDirectory, StatusFile(name), text, false);
}

std::optional<DownloadStatus> ReadDownloadStatus(const std::string& name) {
  const UniqueFd directory = OpenForReading();
  std::string text;
  if (!directory || ReadSmallFileAt(directory.get(), StatusFile(name), kLargestStatus, text) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr) || !document.isObject()) {
      return std::nullopt;
    }
    return FromJson(document);
  } catch (const Json::Exception&) {  // nested too deeply, or a member of another type
    return std::nullopt;
  }
}

bool IsDownloadRunning(const std::string& name) {
  const UniqueFd directory = OpenForReading();
  const UniqueFd lock(
      directory ? openat(directory.get(), LockFile(name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1);
  struct flock whole = WholeFile();
  return lock && fcntl(lock.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

}  // namespace fwplatform
