// SPDX-License-Identifier: Apache-2.0
#include "job-files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "file-descriptor.h"
#include "json-text.h"
#include "system-error.h"
#include "text-layout.h"
#include "whole-file.h"

namespace updated {
namespace {

constexpr char kSuffix[] = ".job";
constexpr std::size_t kLargest = std::size_t{4} << 20;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// 0: not the name of a job's file.
std::uint64_t numberOf(const std::string& name) {
  const std::size_t digits = name.find_first_not_of("0123456789");
  const bool isJob =
      digits != 0 && digits <= 18 && digits != std::string::npos && name.substr(digits) == kSuffix;
  return isJob ? std::stoull(name) : 0;
}

Json::Value jsonOf(const Job& job) {
  Json::Value value;
  value["kind"] = nameOf(job.request.kind);
  value["module"] = job.request.module;
  value["caller"] = job.request.caller;
  value["data"] = job.request.data;
  value["folder"] = job.request.folder;
  value["user"] = static_cast<Json::UInt>(job.request.user);
  value["client"] = job.request.client;
  value["handedOver"] = job.request.isHandedOver;
  value["asking"] = job.state == State::Asking;
  value["began"] = job.beganAt;
  if (job.isDone()) {
    value["document"] = job.document;
  }
  return value;
}

void takeEnd(Job& job, const Json::Value& value) {
  Json::Value result = parsedObject(value["document"].asString());
  if (!result.empty()) {
    result["event"] = "result";
    take(job, result);
  }
}

// False when it is none.
bool readJob(Job& job, const Json::Value& value) {
  const auto kind = kindOf(textIn(value, "kind"));
  if (!kind || !value["user"].isUInt()) {
    return false;
  }
  job.request.kind = *kind;
  job.request.module = textIn(value, "module");
  job.request.caller = textIn(value, "caller");
  job.request.data = textIn(value, "data");
  job.request.folder = textIn(value, "folder");
  job.request.user = value["user"].asUInt();
  job.request.client = textIn(value, "client");
  job.request.isHandedOver = value["handedOver"].isBool() && value["handedOver"].asBool();
  job.module = job.request.module;
  if (value["asking"].isBool() && value["asking"].asBool()) {
    job.state = State::Asking;
    job.sentence = kWaitsForConsent;
  }
  job.beganAt = value["began"].isDouble() ? value["began"].asDouble() : 0;
  if (value["document"].isString()) {
    takeEnd(job, value);
  }
  return true;
}

// In the room that the file has: on a full file system it gets no more.
bool writeInPlace(int directory, const std::string& name, std::string content) {
  const base::FileDescriptor file(openat(directory, name.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    return false;
  }
  const auto before = static_cast<std::size_t>(status.st_size);
  content.resize(std::max(content.size(), before), ' ');  // over all that it says now
  const bool fits = content.size() <= static_cast<std::size_t>(status.st_blocks) * 512;
  return fits &&
         pwrite(file.get(), content.data(), content.size(), 0) == static_cast<ssize_t>(content.size());
}

}  // namespace

JobFiles::JobFiles(std::string directory) : directory_(std::move(directory)) {
  if (mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST) {
    base::throwErrno(directory_);
  }
}

std::string JobFiles::pathOf(std::uint64_t number, const char* suffix) const {
  return directory_ + "/" + std::to_string(number) + suffix;
}

bool JobFiles::keep(const Job& job) const {
  const base::FileDescriptor directory(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string name = std::to_string(job.number) + kSuffix;
  const std::string content = tool::onOneLine(jsonOf(job));
  return directory && (base::replaceFileAt(directory.get(), name, content, false) == 0 ||
                       writeInPlace(directory.get(), name, content));
}

bool JobFiles::hasBegun(std::uint64_t number) const {
  return access(output(number).c_str(), F_OK) == 0;
}

void JobFiles::removeWork(std::uint64_t number) const {
  unlink(output(number).c_str());
  unlink(gate(number).c_str());
}

void JobFiles::remove(std::uint64_t number) const {
  removeWork(number);
  unlink(pathOf(number, kSuffix).c_str());
}

std::vector<Job> JobFiles::load() const {
  std::vector<Job> jobs;
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(directory_.c_str()));
  for (const dirent* entry = nullptr; directory && (entry = readdir(directory.get())) != nullptr;) {
    Job job;
    std::string content;
    job.number = numberOf(entry->d_name);
    if (job.number != 0 && base::readFile(directory_ + "/" + entry->d_name, kLargest, content) == 0 &&
        readJob(job, parsedObject(content))) {
      jobs.push_back(std::move(job));
    }
  }
  std::sort(jobs.begin(), jobs.end(),
            [](const Job& one, const Job& other) { return one.number < other.number; });
  return jobs;
}

}  // namespace updated
