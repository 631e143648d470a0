// SPDX-License-Identifier: Apache-2.0
#include "jobs.h"

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <utility>

#include "fw-update/outcomes.h"
#include "json-text.h"
#include "printable-text.h"
#include "refusal.h"
#include "system-error.h"
#include "taking.h"
#include "text-layout.h"

namespace updated {
namespace {

constexpr std::size_t kMostWaiting = 64;
// Done ones are kept for this long, and the newest longer; never more than the greatest number.
constexpr std::size_t kAlwaysKept = 32;
constexpr std::chrono::hours kKept{1};
constexpr std::size_t kMostKept = 512;

constexpr std::chrono::milliseconds kBetweenLooks{200};  // at the history

constexpr char kNever[] = "2037-12-31";  // nothing has begun since
constexpr int kUnexpected = 1;           // exit code
constexpr std::string_view kNoWay = "none";

// A drive's packages are nobody's, for the history, until their modules are known.
std::string moduleInHistory(const Request& request) {
  return request.kind == Kind::UsbApply ? "" : request.module;
}

// As the history calls what fw-update does for a job; nothing of what it does not keep.
std::string_view wayOf(Kind kind) {
  switch (kind) {
    case Kind::Update:
      return "service";
    case Kind::UpdateAll:
      return "update-all";
    case Kind::UsbApply:
      return "usb";
    case Kind::Download:
      return "download";
    case Kind::UsbEstimate:
      break;
  }
  return kNoWay;
}

// In seconds, of whole milliseconds.
double nowAsInHistory() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<double>(std::chrono::duration_cast<milliseconds>(now).count()) / 1000;
}

constexpr char kStopped[] = "stopped";
constexpr char kInterrupted[] = "interrupted";

}  // namespace

Jobs::Jobs(EventLoop& loop, sdbus::IConnection& connection, Tool tool, ToolQueries& queries)
    : loop_(loop), connection_(connection), tool_(std::move(tool)), queries_(queries) {}

void Jobs::serve(JobObject::Requests requests, std::function<void()> listChanged) {
  requests_ = std::move(requests);
  listChanged_ = std::move(listChanged);
}

Jobs::Item& Jobs::insert(Job job) {
  const std::uint64_t number = job.number;
  auto& item = items_[number];
  item = std::make_unique<Item>();
  item->job = std::move(job);
  item->object = std::make_unique<JobObject>(connection_, item->job, requests_);
  lastNumber_ = std::max(lastNumber_, number);
  return *item;
}

bool Jobs::hasTooMany() const {
  const auto waiting = std::count_if(items_.begin(), items_.end(),
                                     [](const auto& pair) { return !pair.second->job.isDone(); });
  return static_cast<std::size_t>(waiting) > kMostWaiting;
}

const Job& Jobs::add(Request request, bool isAsking) {
  if (hasTooMany()) {
    throw refusal(kTooMany, "Too many jobs wait already. Try again when some of them are done.");
  }
  Job job;
  job.number = lastNumber_ + 1;
  job.module = request.module;
  job.state = isAsking ? State::Asking : State::Queued;
  job.sentence = isAsking ? kWaitsForConsent : "It waits for its turn.";
  job.request = std::move(request);
  if (!files_.keep(job)) {
    throw refusal(kFailed, "The job cannot be kept: there is no room in /run.");
  }
  const Item& item = insert(std::move(job));
  forgetOld();
  listChanged_();
  next_ = loop_.soon([this] { startNext(); });
  return item.job;
}

void Jobs::change(Item& item, const Change& step) {
  const Job before = item.job;
  step(item.job);
  if (item.job.isDone() && !before.isDone()) {
    keepEnd(item.job);
    if (item.job.request.isHandedOver && !item.job.request.folder.empty()) {
      removeIncoming(item.job.request.folder);
    }
  }
  item.object->tellChanges(changes(before, item.job));
}

// Without room for it a service that starts again learns the end from what fw-update has printed.
void Jobs::keepEnd(const Job& job) const {
  if (files_.keep(job)) {
    files_.removeWork(job.number);
  } else if (!files_.hasBegun(job.number)) {
    files_.remove(job.number);  // it would begin
  }
}

void Jobs::startNext() {
  if (child_ || isCleaningUp_) {
    return;
  }
  const auto found = std::find_if(items_.begin(), items_.end(),
                                  [](const auto& pair) { return pair.second->job.state == State::Queued; });
  if (found != items_.end()) {
    start(*found->second);
  } else if (idle_) {
    idle_();
  }
}

JobChild::Listener Jobs::listenerFor(Item& item) {
  return {[this, &item](const Json::Value& event) {
            change(item, [&event](Job& job) { take(job, event); });
            item.object->emitEvent(base::validText(tool::onOneLine(event)));
          },
          [this, &item](std::optional<int> status) {
            // Not while it is still on the way out of itself.
            ending_ = loop_.soon([this, &item, status] { ended(item, status); });
          }};
}

void Jobs::start(Item& item) {
  child_ = std::make_unique<JobChild>(loop_, files_, item.job.number, listenerFor(item));
  change(item, [](Job& job) {
    job.state = State::Checking;
    job.began = Job::Clock::now();
    job.beganAt = nowAsInHistory();
    job.sentence = "It is being looked at.";
  });
  files_.keep(item.job);
  if (const int error = child_->start(tool_, item.job.request); error != 0) {
    child_.reset();
    finish(item.job.number, "unexpected-error", kUnexpected,
           tool_.program + " cannot be started: " + base::errnoText(error) + ".",
           "See whether it is installed, and whether the set has memory left.");
    next_ = loop_.soon([this] { startNext(); });
  }
}

void Jobs::follow(Item& item) {
  change(item, [](Job& job) {
    job.state = State::Checking;
    job.began = Job::Clock::now();
  });
  child_ = std::make_unique<JobChild>(loop_, files_, item.job.number, listenerFor(item));
  child_->follow();
}

// Whoever kills what works on a job may kill what looks how it ended, too.
void Jobs::askSurely(const std::vector<std::string>& question, const ToolQueries::Then& then, int tries) {
  queries_.ask(question, [this, question, then, tries](const ToolAnswer& answer) {
    if (answer.problem.empty() || tries == 1) {
      then(answer);
    } else {
      askSurely(question, then, tries - 1);
    }
  });
}

void Jobs::tellEnd(Item& item, std::optional<int> status) {
  if (item.isCancelled) {
    finish(item.job.number, kStopped, kUnexpected, "It was cancelled before it reached a module.", "");
  } else if (status && WIFEXITED(*status)) {
    finish(item.job.number, "unexpected-error", kUnexpected,
           "The command ended with exit code " + std::to_string(WEXITSTATUS(*status)) + " and no result.",
           "See the log of the service.");
  } else {
    finish(item.job.number, kInterrupted, kUnexpected,
           "It was cut off: its process ended before the update did, or the power went.",
           "See whether it left the update lock taken: fw-update lock status. Then try again.");
  }
}

void Jobs::ended(Item& item, std::optional<int> status) {
  child_.reset();
  if (item.job.isDone()) {
    startNext();
    return;
  }
  isCleaningUp_ = true;
  if (item.isCancelled) {
    learnEnd(item, status);
  } else {
    askSurely({"lock", "recover"}, [this, &item, status](const ToolAnswer&) { learnEnd(item, status); });
  }
}

// A process that was killed may have had its end in the history already. Reading it finds what
// was cut off, too, unless somebody else has the file at that moment: an entry that has no end
// yet, or a history that cannot be read, is looked at again before anything is made of it. The
// job and the history say the same.
void Jobs::learnEnd(Item& item, std::optional<int> status, int tries) {
  askSurely({"history"}, [this, &item, status, tries](const ToolAnswer& answer) {
    const InHistory found = takeFromHistory(item, answer.document);
    const auto again = [this, &item, status, tries] { learnEnd(item, status, tries - 1); };
    if (found == InHistory::NoEndYet && tries > 1) {
      ending_ = loop_.after(kBetweenLooks, again);
      return;
    }
    if (found == InHistory::Nothing && tries > 1 && isWithoutEntry(item, status)) {
      queries_.ask(
          argumentsFor(tool_, item.job.request), [again](const ToolAnswer&) { again(); },
          environmentForEntry(item.job.request));
      return;
    }
    if (found != InHistory::End) {
      tellEnd(item, status);
    }
    isCleaningUp_ = false;
    startNext();
  });
}

// Its command was killed before it could begin one.
bool Jobs::isWithoutEntry(const Item& item, std::optional<int> status) {
  const bool wasKilled = !status || WIFSIGNALED(*status);
  return wasKilled && !item.isCancelled && wayOf(item.job.request.kind) != kNoWay;
}

Jobs::InHistory Jobs::takeFromHistory(Item& item, const Json::Value& document) {
  const Job& job = item.job;
  if (!document["entries"].isArray()) {
    return InHistory::NoEndYet;
  }
  Json::Value found(Json::objectValue);
  for (const Json::Value& entry : objectsIn(document["entries"])) {
    const bool isLater = entry["began"].isDouble() && entry["began"].asDouble() >= job.beganAt;
    if (isLater && !entry.isMember("run") && textIn(entry, "module") == moduleInHistory(job.request) &&
        textIn(entry, "way") == wayOf(job.request.kind)) {
      found = entry;
    }
  }
  if (found.empty()) {  // there was no time for an entry
    return InHistory::Nothing;
  }
  if (textIn(found, "outcome") == kInterrupted) {
    finish(job.number, kInterrupted, kUnexpected, textIn(found, "sentence"), textIn(found, "remedy"));
    return InHistory::End;
  }
  const auto* const outcome = tool::findOutcome(textIn(found, "outcome"));
  if (outcome == nullptr) {  // it runs
    return InHistory::NoEndYet;
  }
  change(item, [&](Job& changed) {
    changed.versionBefore = textIn(found, "versionBefore");
    changed.versionAfter = textIn(found, "versionAfter");
    end(changed, outcome->id, outcome->exitCode, textIn(found, "sentence"), textIn(found, "remedy"));
  });
  return InHistory::End;
}

// Gives the lock back where that is safe, and has the history find what was cut off, which
// it does whenever it is read.
void Jobs::cleanUp(bool wasCutOff) {
  isCleaningUp_ = true;
  if (wasCutOff) {
    askSurely({"lock", "recover"}, [](const ToolAnswer&) {});
  }
  askSurely({"history", "--since", kNever}, [this](const ToolAnswer&) {
    isCleaningUp_ = false;
    startNext();
  });
}

void Jobs::restore() {
  bool wasCutOff = false;
  for (Job& loaded : files_.load()) {
    Item& item = insert(std::move(loaded));
    if (item.job.isDone()) {
      files_.removeWork(item.job.number);
      continue;
    }
    if (!files_.hasBegun(item.job.number)) {
      continue;
    }
    if (child_ == nullptr) {
      follow(item);
    } else {  // two at once there never are
      tellEnd(item, std::nullopt);
      wasCutOff = true;
    }
  }
  listChanged_();
  if (wasCutOff || child_ == nullptr) {
    cleanUp(wasCutOff);
  }
}

void Jobs::begin(std::uint64_t number) {
  change(*items_.at(number), [](Job& job) {
    job.state = State::Queued;
    job.sentence = "It waits for its turn.";
  });
  files_.keep(items_.at(number)->job);
  next_ = loop_.soon([this] { startNext(); });
}

void Jobs::finish(std::uint64_t number, const std::string& outcome, int exitCode, const std::string& sentence,
                  const std::string& remedy) {
  change(*items_.at(number), [&](Job& job) { end(job, outcome, exitCode, sentence, remedy); });
}

void Jobs::cancel(std::uint64_t number) {
  Item& item = *items_.at(number);
  if (item.job.isDone()) {
    throw refusal(kTooLate, "The job is over.");
  }
  if (item.isCancelled) {
    throw refusal(kTooLate, "The job has been cancelled already.");
  }
  if (item.job.state == State::Queued || item.job.state == State::Asking) {
    finish(number, kStopped, kUnexpected, "It was cancelled before it began.", "");
    next_ = loop_.soon([this] { startNext(); });  // it may have been the last
    return;
  }
  if (child_ == nullptr || !child_->cancel()) {
    throw refusal(kTooLate, "The job has reached a module and cannot be cancelled any more.");
  }
  item.isCancelled = true;
}

const Job* Jobs::find(std::uint64_t number) const {
  const auto found = items_.find(number);
  return found == items_.end() ? nullptr : &found->second->job;
}

const Job* Jobs::findOpen(const std::function<bool(const Job& job)>& holds) const {
  const auto found = std::find_if(items_.begin(), items_.end(), [&holds](const auto& pair) {
    return !pair.second->job.isDone() && holds(pair.second->job);
  });
  return found == items_.end() ? nullptr : &found->second->job;
}

std::set<std::string> Jobs::folders() const {
  std::set<std::string> folders;
  findOpen([&folders](const Job& job) {
    folders.insert(job.request.folder);
    return false;  // the next one
  });
  return folders;
}

bool Jobs::isIdle() const {
  return findOpen([](const Job& job) { return job.state != State::Asking; }) == nullptr;
}

std::vector<sdbus::ObjectPath> Jobs::paths() const {
  std::vector<sdbus::ObjectPath> paths;
  paths.reserve(items_.size());
  for (const auto& pair : items_) {
    paths.emplace_back(kJobPaths + std::to_string(pair.first));
  }
  return paths;
}

void Jobs::forgetOld() {
  auto done = static_cast<std::size_t>(std::count_if(
      items_.begin(), items_.end(), [](const auto& pair) { return pair.second->job.isDone(); }));
  const auto longAgo = Job::Clock::now() - kKept;
  for (auto next = items_.begin(); next != items_.end() && done > kAlwaysKept;) {
    const auto item = next++;
    const Job& job = item->second->job;
    if (job.isDone() && (done > kMostKept || job.ended < longAgo)) {
      files_.remove(job.number);
      items_.erase(item);
      --done;
    }
  }
}

}  // namespace updated
