// SPDX-License-Identifier: Apache-2.0
#include "manager.h"

#include <utility>

#include "callers.h"
#include "json-text.h"
#include "module-names.h"
#include "printable-text.h"
#include "refusal.h"
#include "request-check.h"
#include "text-layout.h"

namespace updated {
namespace {

constexpr std::size_t kMostHandingsOver = 64;

// Puts an error out as the answer, wherever it is found.
template <typename Result, typename Step>
void answering(const Result& answer, const Step& step) {
  try {
    step();
  } catch (const sdbus::Error& error) {
    answer.returnError(error);
  }
}

std::string orDefault(const std::string& caller) {
  return caller.empty() ? fwcallers::kDefaultCaller : caller;
}

std::int64_t numberIn(const Json::Value& object, const char* member) {
  return object[member].isInt64() ? object[member].asInt64() : 0;
}

// What a document says in place of the list that was asked for.
void requireAnswer(const Json::Value& document, const char* list) {
  if (!document[list].isArray()) {
    throw refusal(kFailed, textIn(document, "message") + " " + textIn(document, "remedy"));
  }
}

// Each object of a list as a row of its texts.
template <typename... Names>
auto textsOf(const Json::Value& object, const Names*... names) {
  return sdbus::make_struct(textIn(object, names)...);
}

// In the order of the enumeration: as whom an update finds what was handed over.
constexpr struct {
  Kind job;
  const char* caller;
} kJobs[] = {{Kind::Update, "debug"}, {Kind::UsbApply, ""}, {Kind::Update, "lsm"}};

Request requestFor(HandOverKind kind, const std::string& module, const std::string& folder,
                   const Client& client) {
  Request request;
  request.kind = kJobs[static_cast<std::size_t>(kind)].job;
  request.module = module;
  request.caller = kJobs[static_cast<std::size_t>(kind)].caller;
  request.folder = folder;
  request.user = client.user;
  request.client = client.name;
  request.isHandedOver = true;
  return request;
}

std::int64_t milliseconds(const Json::Value& object, const char* member) {
  return object[member].isDouble() ? static_cast<std::int64_t>(object[member].asDouble() * 1000) : 0;
}

}  // namespace

Manager::Manager(sdbus::IConnection& connection, Access& access, JobList& jobs, ToolQueries& queries,
                 Intake& intake)
    : AdaptorInterfaces(connection, kManagerPath),
      access_(access),
      jobs_(jobs),
      queries_(queries),
      intake_(intake) {
  registerAdaptor();
  jobs_.serve({[this](JobObject::Answer&& answer, const Job& job, const auto& client) {
                 cancel(std::move(answer), job, client);
               },
               [this](JobObject::Answer&& answer, const Job& job, const std::string& client,
                      const std::string& said) { consent(std::move(answer), job, client, said); }},
              [this] {
                getObject().emitPropertiesChangedSignal(org::fwupdate::Update1_adaptor::INTERFACE_NAME,
                                                        {"Jobs"});
              });
}

Manager::~Manager() {
  unregisterAdaptor();
}

void Manager::announce(const std::vector<std::string>& modules) {
  emitAnnounced(modules);
}

std::string Manager::client() const {
  return getObject().getCurrentlyProcessedMessage()->getSender();
}

void Manager::addJob(JobAnswer&& answer, Action action, Request request) {
  const auto kept = std::make_shared<JobAnswer>(std::move(answer));
  access_.ask(
      client(), permissionFor(action),
      [this, kept, request = std::move(request)](const Client& client) {
        answering(*kept, [&] {
          Request asked = request;
          asked.user = client.user;
          asked.client = client.name;
          const Job& job = jobs_.add(std::move(asked));
          kept->returnResults(sdbus::ObjectPath(kJobPaths + std::to_string(job.number)));
        });
      },
      [kept](const sdbus::Error& error) { kept->returnError(error); });
}

template <typename Answer, typename Put>
void Manager::query(Answer&& answer, std::vector<std::string> command, Put put) {
  const auto kept = std::make_shared<std::decay_t<Answer>>(std::forward<Answer>(answer));
  const auto refuse = [kept](const sdbus::Error& error) { kept->returnError(error); };
  const auto told = [kept, put](const ToolAnswer& tool) {
    answering(*kept, [&] {
      if (!tool.problem.empty()) {
        throw refusal(kFailed, tool.problem);
      }
      put(*kept, tool.document);
    });
  };
  access_.ask(
      client(), permissionFor(Action::Query),
      [this, refuse, told, command = std::move(command)](const Client& client) {
        if (queries_.isBusyFor(client.user)) {
          refuse(refusal(kTooMany, "Too many questions wait already. Try again."));
        } else {
          queries_.ask(command, told, {}, client.user);
        }
      },
      refuse);
}

void Manager::Update(JobAnswer&& result, std::string module, std::string caller, std::string data) {
  checkModule(module);
  checkCaller(caller, data);
  addJob(std::move(result), Action::Update, {Kind::Update, module, orDefault(caller), data, "", 0, ""});
}

void Manager::UpdateAll(JobAnswer&& result) {
  addJob(std::move(result), Action::Update, {Kind::UpdateAll, "", "", "", "", 0, ""});
}

void Manager::ApplyUsb(JobAnswer&& result, std::string folder) {
  checkFolder(folder);
  addJob(std::move(result), Action::Usb, {Kind::UsbApply, "", "", "", folder, 0, ""});
}

void Manager::EstimateUsb(JobAnswer&& result, std::string folder) {
  checkFolder(folder);
  addJob(std::move(result), Action::Usb, {Kind::UsbEstimate, "", "", "", folder, 0, ""});
}

void Manager::Download(JobAnswer&& result, std::string module) {
  checkModule(module);
  addJob(std::move(result), Action::Update, {Kind::Download, module, "", "", "", 0, ""});
}

// Until it is taken: who may not hand over anything cannot have many files kept open.
struct Manager::HandingOver {
  HandingOver(std::size_t& count, JobAnswer&& result) : open(count), answer(std::move(result)) { ++open; }
  HandingOver(const HandingOver&) = delete;
  HandingOver& operator=(const HandingOver&) = delete;
  ~HandingOver() { --open; }

  void refuse(const char* error, const std::string& sentence, const std::string& remedy) const {
    answer.returnError(refusal(error, remedy.empty() ? sentence : sentence + "\n" + remedy));
  }

  std::size_t& open;
  JobAnswer answer;
  std::string module;
  HandOver files;
  HandOverKind kind = HandOverKind::Package;
  Client client;
};

void Manager::UpdateFrom(JobAnswer&& result, std::string module, std::string kind,
                         std::map<std::string, sdbus::UnixFd> files) {
  checkModule(module);
  std::map<std::string, base::FileDescriptor> own;
  for (auto& [name, file] : files) {
    own[name].reset(file.release());
  }
  HandOver handOver = handOverOf(kind, std::move(own));
  if (handingsOver_ >= kMostHandingsOver) {
    throw refusal(kTooMany, "Too much is being handed over already. Try again.");
  }
  const auto handing = std::make_shared<HandingOver>(handingsOver_, std::move(result));
  handing->module = module;
  handing->kind = handOver.kind;
  handing->files = std::move(handOver);
  access_.ask(
      client(), permissionFor(Action::UpdateFrom),
      [this, handing](const Client& client) {
        handing->client = client;
        lookUpPackage(handing);
      },
      [handing](const sdbus::Error& error) { handing->answer.returnError(error); });
}

// What the component's packages are called, and its firmware, only its module says.
void Manager::lookUpPackage(const std::shared_ptr<HandingOver>& handing) {
  queries_.ask({"info", handing->module}, [this, handing](const ToolAnswer& tool) {
    const std::string package = textIn(tool.document, "package");
    if (!tool.problem.empty()) {
      handing->refuse(kFailed, tool.problem, "");
    } else if (!tool.document.isMember("library")) {
      handing->refuse(kInvalidArgument, textIn(tool.document, "message"), textIn(tool.document, "remedy"));
    } else if (!fwnames::isPackageName(package) || !fwnames::namesFirmware(package)) {
      handing->refuse(kInvalidArgument, handing->module + " takes no images or packages.",
                      "Ask the maker of the module how it is updated.");
    } else {
      handing->files.package = package;
      takeIn(handing);
    }
  });
}

void Manager::takeIn(const std::shared_ptr<HandingOver>& handing) {
  intake_.take(
      std::move(handing->files), [this, handing] { return problemWith(*handing); },
      [this, handing](const Taken& taken) { addTaken(handing, taken); });
}

// A job must not find what was meant for the next one.
Taken Manager::problemWith(const HandingOver& handing) const {
  const auto isOfModule = [&handing](const Job& job) {
    return job.request.isHandedOver && job.request.module == handing.module;
  };
  if (jobs_.findOpen(isOfModule) == nullptr) {
    return {};
  }
  return {kTooMany, handing.module + " is being updated from something that was handed over before.",
          "Hand it over again when that job is done.", ""};
}

void Manager::addTaken(const std::shared_ptr<HandingOver>& handing, const Taken& taken) {
  if (!taken.error.empty()) {
    removeLeftovers(jobs_.folders());  // it may have been killed when all was in place
    handing->refuse(taken.error.c_str(), taken.sentence, taken.remedy);
    return;
  }
  try {
    const Job& job = jobs_.add(requestFor(handing->kind, handing->module, taken.folder, handing->client));
    handing->answer.returnResults(sdbus::ObjectPath(kJobPaths + std::to_string(job.number)));
  } catch (const sdbus::Error& error) {
    if (!taken.folder.empty()) {
      removeIncoming(taken.folder);
    }
    handing->answer.returnError(error);
  }
}

void Manager::ListModules(sdbus::Result<std::vector<ModuleRow>>&& result) {
  query(std::move(result), {"list"}, [](const auto& answer, const Json::Value& document) {
    requireAnswer(document, "modules");
    std::vector<ModuleRow> rows;
    for (const Json::Value& module : objectsIn(document["modules"])) {
      rows.push_back(textsOf(module, "library", "firmware", "version", "kind"));
    }
    answer.returnResults(rows);
  });
}

void Manager::Pending(sdbus::Result<std::vector<PendingRow>>&& result, std::string caller) {
  checkCaller(caller, "");
  query(std::move(result), {"pending", "--caller=" + orDefault(caller)},
        [](const auto& answer, const Json::Value& document) {
          requireAnswer(document, "modules");
          std::vector<PendingRow> rows;
          for (const Json::Value& module : objectsIn(document["modules"])) {
            rows.push_back(textsOf(module, "library", "firmware", "version", "outcome", "reason", "remedy"));
          }
          answer.returnResults(rows);
        });
}

void Manager::LockStatus(sdbus::Result<Text, Text, Text>&& result) {
  query(std::move(result), {"lock", "status"}, [](const auto& answer, const Json::Value& document) {
    answer.returnResults(textIn(document, "state"), textIn(document, "message"), textIn(document, "remedy"));
  });
}

void Manager::History(sdbus::Result<std::vector<HistoryRow>>&& result, std::string module, bool failedOnly,
                      std::uint32_t most) {
  std::vector<std::string> command{"history"};
  if (!module.empty()) {
    checkModule(module);
    command.push_back("--module=" + module);
  }
  if (failedOnly) {
    command.emplace_back("--failed");
  }
  query(std::move(result), command, [most](const auto& answer, const Json::Value& document) {
    requireAnswer(document, "entries");
    std::vector<Json::Value> entries = objectsIn(document["entries"]);
    if (most != 0 && entries.size() > most) {
      entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(most));
    }
    std::vector<HistoryRow> rows;
    rows.reserve(entries.size());
    for (const Json::Value& entry : entries) {
      rows.emplace_back(numberIn(entry, "number"), milliseconds(entry, "began"), milliseconds(entry, "ended"),
                        textIn(entry, "module"), textIn(entry, "way"), textIn(entry, "user"),
                        textIn(entry, "outcome"), textIn(entry, "versionBefore"),
                        textIn(entry, "versionAfter"), textIn(entry, "sentence"), textIn(entry, "remedy"));
    }
    answer.returnResults(rows);
  });
}

void Manager::Query(sdbus::Result<Text>&& result, std::string command, std::vector<std::string> arguments) {
  query(std::move(result), queryWords(command, arguments),
        [](const auto& answer, const Json::Value& document) {
          answer.returnResults(base::validText(tool::onOneLine(document)));
        });
}

void Manager::cancel(sdbus::Result<>&& answer, const Job& job, const std::string& client) {
  const auto kept = std::make_shared<sdbus::Result<>>(std::move(answer));
  const std::uint64_t number = job.number;
  access_.ask(
      client, permissionFor(Action::Cancel),
      [this, kept, number](const Client&) {
        answering(*kept, [&] {
          jobs_.cancel(number);
          kept->returnResults();
        });
      },
      [kept](const sdbus::Error& error) { kept->returnError(error); }, job.request.user);
}

void Manager::consent(sdbus::Result<>&& answer, const Job& job, const std::string& client,
                      const std::string& said) {
  if (said != "yes" && said != "no" && said != "later") {
    throw refusal(kInvalidArgument, "The answer is yes, no or later.");
  }
  const auto kept = std::make_shared<sdbus::Result<>>(std::move(answer));
  const std::uint64_t number = job.number;
  access_.ask(
      client, permissionFor(Action::Consent),
      [this, kept, number, said](const Client&) {
        const Job* const asked = jobs_.find(number);
        if (asked == nullptr || asked->state != State::Asking) {
          kept->returnError(refusal(kNotAsked, "The job does not ask for consent."));
          return;
        }
        consented_(number, said);
        kept->returnResults();
      },
      [kept](const sdbus::Error& error) { kept->returnError(error); });
}

}  // namespace updated
