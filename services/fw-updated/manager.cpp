// SPDX-License-Identifier: Apache-2.0
#include "manager.h"

#include <utility>

#include "callers.h"
#include "json-text.h"
#include "printable-text.h"
#include "refusal.h"
#include "request-check.h"
#include "text-layout.h"

namespace updated {
namespace {

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

std::int64_t milliseconds(const Json::Value& object, const char* member) {
  return object[member].isDouble() ? static_cast<std::int64_t>(object[member].asDouble() * 1000) : 0;
}

}  // namespace

Manager::Manager(sdbus::IConnection& connection, Access& access, JobList& jobs, ToolQueries& queries)
    : AdaptorInterfaces(connection, kManagerPath), access_(access), jobs_(jobs), queries_(queries) {
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
      client(), action,
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
      client(), Action::Query,
      [this, refuse, told, command = std::move(command)](const Client&) {
        if (queries_.isBusy()) {
          refuse(refusal(kTooMany, "Too many questions wait already. Try again."));
        } else {
          queries_.ask(command, told);
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
      client, Action::Cancel,
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
      client, Action::Consent,
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
