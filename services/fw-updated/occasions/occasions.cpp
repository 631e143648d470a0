// SPDX-License-Identifier: Apache-2.0
#include "occasions.h"

#include <unistd.h>

#include <iostream>
#include <utility>

#include "callers.h"
#include "json-text.h"
#include "printable-text.h"

namespace updated {
namespace {

constexpr int kUnexpected = 1;  // exit code
constexpr char kStopped[] = "stopped";

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + base::printableText(name);
  }
  return text;
}

Request updateOf(const std::string& module) {
  return {Kind::Update, module, fwcallers::kDefaultCaller, "", "", getuid(), ""};
}

Request driveAt(const std::string& folder) {
  return {Kind::UsbApply, "", "", "", folder, getuid(), ""};
}

std::vector<std::string> neededIn(const Json::Value& estimate) {
  std::vector<std::string> needed;
  if (!estimate["modules"].isArray()) {
    return needed;
  }
  for (const Json::Value& module : estimate["modules"]) {
    if (module.isObject() && module["needsUpdate"].isBool() && module["needsUpdate"].asBool()) {
      needed.push_back(textIn(module, "library"));
    }
  }
  return needed;
}

}  // namespace

std::vector<Offer> offersIn(const Json::Value& pending) {
  std::vector<Offer> offers;
  if (!pending["modules"].isArray()) {
    return offers;
  }
  for (const Json::Value& module : pending["modules"]) {
    if (module.isObject() && module["pending"].isBool() && module["pending"].asBool()) {
      offers.push_back(
          {textIn(module, "library"), textIn(module, "offeredVersion"), textIn(module, "class")});
    }
  }
  return offers;
}

Occasions::Occasions(EventLoop& loop, sdbus::IConnection& connection, const Configuration& configuration,
                     std::string keyFile, Jobs& jobs, ToolQueries& queries, Announce announce)
    : loop_(loop),
      connection_(connection),
      configuration_(configuration),
      keyFile_(std::move(keyFile)),
      jobs_(jobs),
      queries_(queries),
      announce_(std::move(announce)) {}

void Occasions::begin() {
  if (configuration_.usbDrive) {
    drives_ = std::make_unique<DriveWatch>(loop_, [this](const auto& folder) { lookAtDrive(folder); });
  }
  if (configuration_.beforeStandby || configuration_.beforeShutdown) {
    const auto step = [this] { lookBeforeTheEnd(); };
    jobs_.whenIdle([this] { releaseWhenIdle(); });
    sleep_ = std::make_unique<SleepWatch>(connection_,
                                          configuration_.beforeStandby ? SleepWatch::Step(step) : nullptr,
                                          configuration_.beforeShutdown ? SleepWatch::Step(step) : nullptr);
  }
  if (configuration_.window) {
    window_ = std::make_unique<DailyWindow>(
        loop_, *configuration_.window, [this] { look(Asking::Allowed); }, [] { return std::time(nullptr); });
  }
  if (configuration_.atStart) {
    look(Asking::Allowed);
  }
}

void Occasions::look(Asking asking) {
  ++looks_;
  queries_.ask({"pending"}, [this, asking](const ToolAnswer& answer) {
    if (!answer.problem.empty()) {
      std::cerr << "What is to be updated is not known: " << answer.problem << "\n";
    }
    act(offersIn(answer.document), asking);
    --looks_;
    releaseWhenIdle();
  });
}

void Occasions::lookAtDrive(const std::string& folder) {
  queries_.ask({"usb", "estimate", "--key-file=" + keyFile_, folder},
               [this, folder](const ToolAnswer& answer) {
                 const std::vector<std::string> needed = neededIn(answer.document);
                 const auto isOfDrive = [&folder](const Job& job) { return job.request.folder == folder; };
                 const Policy policy = configuration_.policyFor("");  // a package says nothing of its class
                 if (needed.empty() || jobs_.findOpen(isOfDrive) != nullptr) {
                   return;
                 }
                 if (policy == Policy::Leave) {
                   leave(needed);
                 } else {
                   add(driveAt(folder), "", policy == Policy::Ask);
                 }
               });
}

// Nobody is there to be asked any more.
void Occasions::lookBeforeTheEnd() {
  look(Asking::Pointless);
}

void Occasions::releaseWhenIdle() {
  if (sleep_ && looks_ == 0 && jobs_.isIdle()) {
    sleep_->release();
  }
}

bool Occasions::wasDeclined(const Offer& offer) const {
  const auto found = declined_.find(offer.module);
  return found != declined_.end() && found->second == offer.version;
}

void Occasions::act(const std::vector<Offer>& offers, Asking asking) {
  std::vector<std::string> left;
  for (const Offer& offer : offers) {
    const Policy policy = configuration_.policyFor(offer.updateClass);
    const auto isOfModule = [&offer](const Job& job) { return job.request.module == offer.module; };
    const bool isPointless = policy == Policy::Ask && (asking == Asking::Pointless || wasDeclined(offer));
    if (policy == Policy::Leave || isPointless) {
      left.push_back(offer.module);
    } else if (jobs_.findOpen(isOfModule) == nullptr) {
      add(updateOf(offer.module), offer.version, policy == Policy::Ask);
    }
  }
  if (!left.empty()) {
    leave(left);
  }
}

void Occasions::leave(const std::vector<std::string>& modules) {
  std::cerr << "There are updates for " << joined(modules) << "; the configuration leaves them.\n";
  announce_(modules);
}

void Occasions::add(Request request, const std::string& version, bool isAsking) {
  try {
    const std::string module = request.module;
    const Job& job = jobs_.add(std::move(request), isAsking);
    if (isAsking) {
      asked_[job.number] = {module, version, ""};
    }
  } catch (const sdbus::Error& error) {
    std::cerr << error.getMessage() << "\n";
  }
}

void Occasions::answer(std::uint64_t job, const std::string& said) {
  if (said == "yes") {
    jobs_.begin(job);
    return;
  }
  const auto asked = asked_.find(job);
  if (said == "no" && asked != asked_.end()) {
    declined_[asked->second.module] = asked->second.version;
  }
  jobs_.finish(job, kStopped, kUnexpected,
               said == "no" ? "It was declined." : "It was put off: the next occasion asks again.", "");
}

}  // namespace updated
