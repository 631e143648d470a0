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
  const auto percent = status.Percent();
  if (!percent)
    return package + ": " + std::to_string(status.received) + " bytes";
  return package + ": " + std::to_string(*percent) + " %, " + std::to_string(status.received) + " of " +
         std::to_string(status.total) + " bytes";
}

class LiveDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadStatus& status) override {
    std::cout << base::TerminalOrder(base::Order::LineStart)
              << lineOf(package, status).substr(0, terminalWidth(STDOUT_FILENO) - 1)
              << base::TerminalOrder(base::Order::EraseToEnd) << std::flush;
    drawn = true;
  }
  void finish() override {
    if (drawn)
      std::cout << base::EmptyLine() << std::flush;
    drawn = false;
  }

 private:
  bool drawn = false;
};

class PlainDownload : public DownloadReporter {
 public:
  void tick(const std::string& package, const DownloadStatus& status) override {
    const auto percent = status.Percent();
    if (!percent || lastTens == *percent / 10)
      return;
    lastTens = *percent / 10;
    std::cout << lineOf(package, status) << std::endl;
  }
  void finish() override { lastTens.reset(); }

 private:
  std::optional<unsigned int> lastTens;
};

class NdjsonDownload : public DownloadReporter {
 public:
  void start(const std::string& package) override { put("start", package, nullptr); }
  void tick(const std::string& package, const DownloadStatus& status) override {
    if (lastReceived == status.received || (status.received == 0 && !status.Percent()))
      return;  // nothing new, or the server has not answered yet
    lastReceived = status.received;
    put("progress", package, &status);
  }
  void finish() override { lastReceived.reset(); }

 private:
  static void put(const char* name, const std::string& package, const DownloadStatus* status) {
    Json::Value event;
    event["event"] = name;
    event["package"] = package;
    if (status != nullptr) {
      event["received"] = static_cast<Json::Int64>(status->received);
      if (status->total >= 0)
        event["total"] = static_cast<Json::Int64>(status->total);
      if (const auto percent = status->Percent())
        event["percent"] = *percent;
    }
    std::cout << onOneLine(event) << std::flush;
  }

  std::optional<std::int64_t> lastReceived;
};

}  // namespace

std::unique_ptr<DownloadReporter> makeDownloadReporter(const Options& options) {
  if (options.ndjson)
    return std::make_unique<NdjsonDownload>();
  if (options.json)
    return std::make_unique<DownloadReporter>();
  if (isTerminal(STDOUT_FILENO) && !options.log)
    return std::make_unique<LiveDownload>();
  return std::make_unique<PlainDownload>();
}

}  // namespace tool
