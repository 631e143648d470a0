// SPDX-License-Identifier: Apache-2.0
#include "progress/download-reporter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <optional>

#include "frame/report.h"
#include "live-line.h"
#include "progress/telling.h"

namespace tool {
namespace {

using appbinaryManager::DownloadProgress;

// "wifiempfw: 30 %, 1572864 of 5242880 bytes"
std::string lineOf(const std::string& package, const DownloadProgress& progress) {
  const auto percent = percentOf(progress);
  if (!percent) {
    return package + ": " + std::to_string(progress.received) + " bytes";
  }
  return package + ": " + std::to_string(*percent) + " %, " + std::to_string(progress.received) + " of " +
         std::to_string(progress.total) + " bytes";
}

class LiveDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadProgress& progress) override {
    line_.show(lineOf(package, progress));
  }
  void finish() override { line_.clear(); }

 private:
  LiveLine line_{STDOUT_FILENO};
};

class PlainDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadProgress& progress) override {
    const auto percent = percentOf(progress);
    if (!percent || lastTens_ == *percent / 10) {
      return;
    }
    lastTens_ = *percent / 10;
    std::cout << lineOf(package, progress) << std::endl;
  }
  void finish() override { lastTens_.reset(); }

 private:
  std::optional<unsigned int> lastTens_;
};

class NdjsonDownload : public DownloadReporter {
 public:
  void start(const std::string& package) override { put("start", package, nullptr); }
  void tick(const std::string& package, const DownloadProgress& progress) override {
    if (lastReceived_ == progress.received || (progress.received == 0 && !percentOf(progress))) {
      return;  // nothing new, or the server has not answered yet
    }
    lastReceived_ = progress.received;
    put("progress", package, &progress);
  }
  void finish() override { lastReceived_.reset(); }

 private:
  static void put(const char* name, const std::string& package, const DownloadProgress* progress) {
    Json::Value event;
    event["event"] = name;
    event["package"] = package;
    if (progress != nullptr) {
      event["received"] = static_cast<Json::Int64>(progress->received);
      if (progress->total >= 0) {
        event["total"] = static_cast<Json::Int64>(progress->total);
      }
      if (const auto percent = percentOf(*progress)) {
        event["percent"] = *percent;
      }
    }
    frame::putEvent(event);
  }

  std::optional<std::int64_t> lastReceived_;
};

}  // namespace

std::optional<unsigned int> percentOf(const DownloadProgress& progress) {
  if (progress.total <= 0) {
    return std::nullopt;
  }
  return static_cast<unsigned int>(std::clamp<std::int64_t>(progress.received, 0, progress.total) * 100 /
                                   progress.total);
}

std::unique_ptr<DownloadReporter> makeDownloadReporter(const Options& options) {
  return makeReporter<DownloadReporter, NdjsonDownload, DownloadReporter, LiveDownload, PlainDownload>(
      options);
}

}  // namespace tool
