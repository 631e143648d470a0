// SPDX-License-Identifier: Apache-2.0
// The update service on D-Bus.
#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <utility>

#include "service/service-client.h"

namespace tool {
namespace {

constexpr char kName[] = "org.fwupdate.Update1";
constexpr char kPath[] = "/org/fwupdate/Update1";
constexpr char kJob[] = "org.fwupdate.Update1.Job";
constexpr char kJobPaths[] = "/org/fwupdate/Update1/job/";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kSignals[] =
    "type='signal',sender='org.fwupdate.Update1',path_namespace='/org/fwupdate/Update1'";
// The service gives a question up after a minute.
constexpr std::chrono::seconds kPatience{75};

using Properties = std::map<std::string, sdbus::Variant>;
using Path = sdbus::ObjectPath;

// What the service says, in the words of this command.
template <typename Step>
auto asking(const Step& step) {
  try {
    return step();
  } catch (const sdbus::Error& error) {
    throw BusError(error.getName(), error.getMessage());
  }
}

// 0: none of a job.
std::uint64_t numberOf(const std::string& path) {
  const std::size_t length = sizeof kJobPaths - 1;
  return path.compare(0, length, kJobPaths) == 0 ? std::strtoull(path.c_str() + length, nullptr, 10) : 0;
}

template <typename Value>
void take(const Properties& properties, const char* name, Value& value) {
  const auto found = properties.find(name);
  if (found != properties.end() && found->second.containsValueOfType<Value>()) {
    value = found->second.get<Value>();
  }
}

JobState stateOf(const Properties& properties) {
  JobState job;
  take(properties, "Number", job.number);
  take(properties, "Kind", job.kind);
  take(properties, "Module", job.module);
  take(properties, "State", job.state);
  take(properties, "Percent", job.percent);
  take(properties, "Elapsed", job.elapsedSeconds);
  take(properties, "Expected", job.expectedSeconds);
  take(properties, "Outcome", job.outcome);
  take(properties, "ExitCode", job.exitCode);
  take(properties, "Sentence", job.sentence);
  take(properties, "Remedy", job.remedy);
  take(properties, "Document", job.document);
  return job;
}

std::unique_ptr<sdbus::IConnection> connectTo(const std::string& bus) {
  try {
    auto connection =
        bus.empty() ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnectionWithAddress(bus);
    connection->setMethodCallTimeout(kPatience);
    return connection;
  } catch (const sdbus::Error& error) {
    throw BusError(kNoBus, error.getMessage());
  }
}

class BusClient : public ServiceClient {
 public:
  explicit BusClient(const std::string& bus)
      : connection_(connectTo(bus)), manager_(sdbus::createProxy(*connection_, kName, kPath)) {
    signals_ = asking(
        [this] { return connection_->addMatch(kSignals, [this](sdbus::Message& signal) { take(signal); }); });
  }

  std::string query(const std::string& command, const std::vector<std::string>& arguments) override {
    return asking([&] {
      std::string document;
      manager_->callMethod("Query")
          .onInterface(kName)
          .withArguments(command, arguments)
          .storeResultsTo(document);
      return document;
    });
  }

  std::uint64_t add(const JobRequest& request) override {
    return asking([&] { return numberOf(pathOfNew(request)); });
  }

  JobState job(std::uint64_t number) override {
    return asking([&] {
      const auto proxy = proxyOf(number);
      Properties properties;
      proxy->callMethod("GetAll").onInterface(kProperties).withArguments(kJob).storeResultsTo(properties);
      return stateOf(properties);
    });
  }

  std::vector<JobState> jobs() override {
    const auto paths =
        asking([&] { return manager_->getProperty("Jobs").onInterface(kName).get<std::vector<Path>>(); });
    std::vector<JobState> states;
    states.reserve(paths.size());
    for (const Path& path : paths) {
      states.push_back(job(numberOf(path)));
    }
    return states;
  }

  void cancel(std::uint64_t number) override {
    asking([&] { proxyOf(number)->callMethod("Cancel").onInterface(kJob); });
  }

  bool wait(std::chrono::milliseconds most) override {
    try {
      if (process()) {
        return true;
      }
      const auto wanted = connection_->getEventLoopPollData();
      pollfd descriptor{wanted.fd, wanted.events, 0};
      poll(&descriptor, 1, static_cast<int>(most.count()));
      return process();
    } catch (const sdbus::Error& error) {  // the bus has ended
      throw BusError(kNoBus, error.getMessage());
    }
  }

  std::vector<std::string> takeEvents(std::uint64_t number) override {
    std::vector<std::string> lines;
    for (auto& [from, line] : std::exchange(events_, {})) {
      if (from == number) {
        lines.push_back(std::move(line));
      }
    }
    return lines;
  }

 private:
  std::unique_ptr<sdbus::IProxy> proxyOf(std::uint64_t number) {
    return sdbus::createProxy(*connection_, kName, kJobPaths + std::to_string(number));
  }

  Path pathOfNew(const JobRequest& request) {
    Path path;
    if (request.kind == "update") {
      manager_->callMethod("Update")
          .onInterface(kName)
          .withArguments(request.module, request.caller, request.data)
          .storeResultsTo(path);
    } else if (request.kind == "update-all") {
      manager_->callMethod("UpdateAll").onInterface(kName).storeResultsTo(path);
    } else if (request.kind == "download") {
      manager_->callMethod("Download").onInterface(kName).withArguments(request.module).storeResultsTo(path);
    } else {
      const char* const method = request.kind == "usb-apply" ? "ApplyUsb" : "EstimateUsb";
      manager_->callMethod(method).onInterface(kName).withArguments(request.folder).storeResultsTo(path);
    }
    return path;
  }

  // True when signals came.
  bool process() {
    while (connection_->processPendingRequest()) {
    }
    return std::exchange(hasNews_, false);
  }

  void take(sdbus::Message& signal) {
    hasNews_ = true;
    if (signal.getInterfaceName() == kJob && signal.getMemberName() == "Event") {
      std::string line;
      signal >> line;
      events_.emplace_back(numberOf(signal.getPath()), std::move(line));
    }
  }

  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> manager_;
  std::vector<std::pair<std::uint64_t, std::string>> events_;  // of which job, and what
  bool hasNews_ = false;
  sdbus::Slot signals_;
};

}  // namespace
}  // namespace tool

extern "C" [[gnu::visibility("default")]] tool::MakeServiceClient fwMakeServiceClient;

void fwMakeServiceClient(const std::string& bus, std::unique_ptr<tool::ServiceClient>& client) {
  client = std::make_unique<tool::BusClient>(bus);
}
