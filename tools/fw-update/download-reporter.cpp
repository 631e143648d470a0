#include "download-reporter.h"

#include <unistd.h>

#include <iostream>
#include <optional>

#include "clean-output.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

using fwplatform::DownloadStatus;

// "wifiempfw: 30 %, 1572864 of 5242880 bytes"
std::string lineOf(const std::string& package, const DownloadStatus& status) {
  const auto percent = status.percent();
  if (!percent) {
    return package + ": " + std::to_string(status.received) + " bytes";
  }
  return package + ": " + std::to_string(*percent) + " %, " + std::to_string(status.received) + " of " +
         std::to_string(status.total) + " bytes";
}

class LiveDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadStatus& status) override {
    std::cout << base::terminalOrder(base::Order::LineStart)
              << lineOf(package, status).substr(0, terminalWidth(STDOUT_FILENO) - 1)
              << base::terminalOrder(base::Order::EraseToEnd) << std::flush;
    drawn_ = true;
  }
  void finish() override {
    if (drawn_) {
      std::cout << base::emptyLine() << std::flush;
    }
    drawn_ = false;
  }

 private:
  bool drawn_ = false;
};

class PlainDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadStatus& status) override {
    const auto percent = status.percent();
    if (!percent || lastTens_ == *percent / 10) {
      return;
    }
    lastTens_ = *percent / 10;
    std::cout << lineOf(package, status) << std::endl;
  }
  void finish() override { lastTens_.reset(); }

 private:
  std::optional<unsigned int> lastTens_;
};

class NdjsonDownload : public DownloadReporter {
 public:
  void start(const std::string& package) override { put("start", package, nullptr); }
  void tick(const std::string& package, const DownloadStatus& status) override {
    if (lastReceived_ == status.received || (status.received == 0 && !status.percent())) {
      return;  // nothing new, or the server has not answered yet
    }
    lastReceived_ = status.received;
    put("progress", package, &status);
  }
  void finish() override { lastReceived_.reset(); }

 private:
  static void put(const char* name, const std::string& package, const DownloadStatus* status) {
    Json::Value event;
    event["event"] = name;
    event["package"] = package;
    if (status != nullptr) {
      event["received"] = static_cast<Json::Int64>(status->received);
      if (status->total >= 0) {
        event["total"] = static_cast<Json::Int64>(status->total);
      }
      if (const auto percent = status->percent()) {
        event["percent"] = *percent;
      }
    }
    std::cout << onOneLine(event) << std::flush;
  }

  std::optional<std::int64_t> lastReceived_;
};

}  // namespace

std::unique_ptr<DownloadReporter> makeDownloadReporter(const Options& options) {
  if (options.ndjson) {
    return std::make_unique<NdjsonDownload>();
  }
  if (options.json) {
    return std::make_unique<DownloadReporter>();
  }
  if (isTerminal(STDOUT_FILENO) && !options.log) {
    return std::make_unique<LiveDownload>();
  }
  return std::make_unique<PlainDownload>();
}

}  // namespace tool
