// SPDX-License-Identifier: Apache-2.0
#include "update-service.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <utility>

namespace fleet {
namespace {

constexpr char kName[] = "org.fwupdate.Update1";
constexpr char kPath[] = "/org/fwupdate/Update1";
constexpr char kJob[] = "org.fwupdate.Update1.Job";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kChanges[] =
    "type='signal',sender='org.fwupdate.Update1',path_namespace='/org/fwupdate/Update1',"
    "interface='org.freedesktop.DBus.Properties'";
// Modules are asked for what is looked at; what is handed over is copied and checked.
constexpr std::chrono::seconds kPatience{75};
constexpr std::chrono::minutes kPatienceForFiles{35};
// The service may have gone without a signal.
constexpr std::chrono::milliseconds kLookAgain{5000};

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Files = std::map<std::string, sdbus::UnixFd>;
using ModuleRow = sdbus::Struct<std::string, std::string, std::string, std::string>;
using Properties = std::map<std::string, sdbus::Variant>;

// In the order of the enumeration, as the service calls them.
constexpr const char* kKinds[] = {"package", "usb", "image"};

constexpr char kErrors[] = "org.fwupdate.Update1.Error.";
// Answers that will be the same for the same files. All others may change.
constexpr const char* kFinal[] = {"org.fwupdate.Update1.Error.Refused",
                                  "org.fwupdate.Update1.Error.InvalidArgument"};

constexpr struct {
  const char* outcome;
  JobEnd end;
} kEnds[] = {
    {"updated", JobEnd::Updated}, {"interrupted", JobEnd::Unknown}, {"nothing-to-do", JobEnd::NotNeeded}};

JobEnd endOf(const std::string& outcome) {
  const auto* const row = std::find_if(std::begin(kEnds), std::end(kEnds),
                                       [&](const auto& one) { return outcome == one.outcome; });
  return row == std::end(kEnds) ? JobEnd::Failed : row->end;
}

bool isFinal(const sdbus::Error& error) {
  return std::find(std::begin(kFinal), std::end(kFinal), error.getName()) != std::end(kFinal);
}

// A sentence, and in a second line what to do about it.
HandedOver sentencesOf(const std::string& message) {
  const std::size_t end = message.find('\n');
  return {message.substr(0, end), end == std::string::npos ? "" : message.substr(end + 1)};
}

constexpr char kNotThere[] =
    "No update service is on the bus: fw-updated is not installed, or does not run. Start it: "
    "systemctl start fw-updated.";
constexpr char kNoAnswer[] =
    "The update service gave no answer. See what it does: systemctl status fw-updated.";

// What the bus says in words of its own.
constexpr struct {
  const char* error;
  const char* sentence;
} kOfTheBus[] = {
    {"org.freedesktop.DBus.Error.ServiceUnknown", kNotThere},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", kNotThere},
    {"org.freedesktop.DBus.Error.NoReply", kNoAnswer},
    {"org.freedesktop.DBus.Error.Timeout", kNoAnswer},
};

std::string sentenceOf(const sdbus::Error& error) {
  const auto* const row = std::find_if(std::begin(kOfTheBus), std::end(kOfTheBus),
                                       [&](const auto& one) { return error.getName() == one.error; });
  if (row != std::end(kOfTheBus)) {
    return row->sentence;
  }
  std::string sentence = "The update service cannot be asked: " + error.getMessage();
  std::replace(sentence.begin(), sentence.end(), '\n', ' ');
  return sentence;
}

// What the service itself says is sure; the bus does not know what came of a question.
[[noreturn]] void throwAway(const sdbus::Error& error) {
  const std::string sentence = sentenceOf(error);
  if (error.getName().rfind(kErrors, 0) == 0) {
    throw InstallerBusy(sentence);
  }
  throw InstallerAway(sentence);
}

// Whatever goes wrong on the way is the bus's or the service's.
template <typename Step>
auto asking(const Step& step) {
  try {
    return step();
  } catch (const sdbus::Error& error) {
    throwAway(error);
  }
}

class Bus {
 public:
  explicit Bus(const std::string& address)
      : connection_(address.empty() ? sdbus::createSystemBusConnection()
                                    : sdbus::createSessionBusConnectionWithAddress(address)),
        manager_(sdbus::createProxy(*connection_, kName, kPath)) {
    connection_->setMethodCallTimeout(kPatience);
  }

  sdbus::IProxy& manager() { return *manager_; }
  sdbus::IConnection& connection() { return *connection_; }

  // library, firmware, version, kind
  std::vector<ModuleRow> modules() {
    std::vector<ModuleRow> rows;
    manager_->callMethod("ListModules").onInterface(kName).storeResultsTo(rows);
    return rows;
  }

  // Empty: the set has no such component.
  std::string moduleOf(const std::string& component) {
    for (const ModuleRow& row : modules()) {
      if (std::get<1>(row) == component) {
        return std::get<0>(row);
      }
    }
    return "";
  }

  std::vector<sdbus::ObjectPath> jobs() {
    return manager_->getProperty("Jobs").onInterface(kName).get<std::vector<sdbus::ObjectPath>>();
  }

  Properties propertiesOf(const sdbus::ObjectPath& job) {
    Properties properties;
    sdbus::createProxy(*connection_, kName, job)
        ->callMethod("GetAll")
        .onInterface(kProperties)
        .withArguments(kJob)
        .storeResultsTo(properties);
    return properties;
  }

  // Until something is said on the bus, or the time is over.
  void wait(milliseconds most) {
    while (connection_->processPendingRequest()) {
    }
    const auto wanted = connection_->getEventLoopPollData();
    pollfd descriptor{wanted.fd, wanted.events, 0};
    poll(&descriptor, 1, static_cast<int>(most.count()));
    while (connection_->processPendingRequest()) {
    }
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> manager_;
};

std::string textIn(const Properties& properties, const char* name) {
  const auto found = properties.find(name);
  const bool isText = found != properties.end() && found->second.containsValueOfType<std::string>();
  return isText ? found->second.get<std::string>() : "";
}

bool isOfThisUser(const Properties& properties) {
  using AskedBy = sdbus::Struct<std::uint32_t, std::string>;
  const auto found = properties.find("AskedBy");
  return found != properties.end() && found->second.containsValueOfType<AskedBy>() &&
         std::get<0>(found->second.get<AskedBy>()) == geteuid();
}

// The last part of a path; 0 when it is no number.
std::uint64_t numberOf(const std::string& path) {
  const char* const begin = path.data() + path.rfind('/') + 1;
  std::uint64_t number = 0;
  std::from_chars(begin, path.data() + path.size(), number);
  return number;
}

bool isOver(const Properties& job) {
  return textIn(job, "State") == "done";
}

struct FoundJob {
  std::uint64_t number = 0;  // there is none
  Properties properties;
};

// The newest one of this user's for the module after that number, and where it is to be so, that is over.
FoundJob jobOf(Bus& bus, const std::string& module, std::uint64_t after, bool mustBeOver) {
  const std::vector<sdbus::ObjectPath> paths = bus.jobs();
  for (auto path = paths.rbegin(); path != paths.rend() && numberOf(*path) > after; ++path) {
    Properties job = bus.propertiesOf(*path);
    if (textIn(job, "Module") == module && isOfThisUser(job) && (!mustBeOver || isOver(job))) {
      return {numberOf(*path), std::move(job)};
    }
  }
  return {};
}

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// What the service calls a file of this kind, by the artifact's name.
std::string partOf(Kind kind, const std::string& name) {
  if (kind != Kind::Image) {
    return "package";
  }
  if (name == "info.json") {
    return name;
  }
  return endsWith(name, ".sig") ? "signature" : "image";
}

Files filesOf(Kind kind, const std::vector<InstallFile>& files) {
  Files parts;
  for (const InstallFile& file : files) {
    parts.emplace(partOf(kind, file.name), sdbus::UnixFd(file.descriptor));
  }
  return parts;
}

HandedOver handOver(Bus& bus, const std::string& module, Kind kind, const Files& files) {
  try {
    sdbus::ObjectPath job;
    bus.manager()
        .callMethod("UpdateFrom")
        .onInterface(kName)
        .withTimeout(kPatienceForFiles)
        .withArguments(module, kKinds[static_cast<std::size_t>(kind)], files)
        .storeResultsTo(job);
    return {};
  } catch (const sdbus::Error& error) {
    if (!isFinal(error)) {
      throwAway(error);
    }
    return sentencesOf(error.getMessage());
  }
}

}  // namespace

UpdateService::UpdateService(std::string bus) : bus_(std::move(bus)) {}

std::map<std::string, std::string> UpdateService::versions() {
  return asking([this] {
    std::map<std::string, std::string> versions;
    for (const ModuleRow& row : Bus(bus_).modules()) {
      if (!std::get<1>(row).empty()) {
        versions.emplace(std::get<1>(row), std::get<2>(row));
      }
    }
    return versions;
  });
}

std::optional<std::string> UpdateService::versionOf(const std::string& component) {
  const std::map<std::string, std::string> all = versions();
  const auto found = all.find(component);
  return found == all.end() ? std::nullopt : std::optional<std::string>(found->second);
}

HandedOver UpdateService::ask(const std::string& component, Kind kind,
                              const std::vector<InstallFile>& files) {
  return asking([&]() -> HandedOver {
    const Files parts = filesOf(kind, files);
    if (parts.size() != files.size()) {
      return {"Of the files for " + component + " two are the same part of it.",
              "Offer one package, or an image with its info.json and its signature."};
    }
    Bus bus(bus_);
    const std::string module = bus.moduleOf(component);
    if (module.empty()) {
      return {"This set has no component " + component + ".", "See what it has: fw-update list."};
    }
    return handOver(bus, module, kind, parts);
  });
}

std::uint64_t UpdateService::lastEnded(const std::string& component) {
  return asking([&]() -> std::uint64_t {
    Bus bus(bus_);
    const std::string module = bus.moduleOf(component);
    return module.empty() ? 0 : jobOf(bus, module, 0, true).number;
  });
}

Followed UpdateService::follow(const std::string& component, std::uint64_t after, milliseconds patience) {
  return asking([&]() -> Followed {
    const auto end = Clock::now() + patience;
    Bus bus(bus_);
    const sdbus::Slot changes = bus.connection().addMatch(kChanges, [](sdbus::Message&) {});
    const std::string module = bus.moduleOf(component);
    while (true) {
      const Properties job = module.empty() ? Properties() : jobOf(bus, module, after, false).properties;
      if (job.empty()) {
        return {JobEnd::Unknown, "", ""};
      }
      if (isOver(job)) {
        return {endOf(textIn(job, "Outcome")), textIn(job, "Sentence"), textIn(job, "Remedy")};
      }
      const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
      if (left.count() <= 0) {
        return {};
      }
      bus.wait(std::min(left, kLookAgain));
    }
  });
}

}  // namespace fleet
