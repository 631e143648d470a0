// SPDX-License-Identifier: Apache-2.0
#include "library/log-meanings.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "library-messages.h"
#include "library/library.h"
#include "library/meaning-table.h"

namespace tool {
namespace {

// What stands for one {name} of a sentence; null when it has no value.
std::optional<std::string> valueOf(const std::string& name, const LogMessage& message, const LogMessages& all,
                                   const std::string& module) {
  if (name == "module") {
    return module;
  }
  if (name == "errno") {
    return std::strerror(message.errorNumber);
  }
  if (name == "answer") {
    return message.arguments.size() > 1 ? answerText(message.arguments[1]) : "?";
  }
  const auto limit = timeLimit(all);
  if (name == "expected" || name == "limit") {
    return limit ? std::to_string(name == "limit" ? limit->givesUp : limit->expected) : "?";
  }
  const auto index = static_cast<std::size_t>(name[0] - '0');
  if (index < message.arguments.size()) {
    return message.arguments[index];
  }
  return std::nullopt;
}

std::string fill(std::string_view sentence, const LogMessage& message, const LogMessages& all,
                 const std::string& module) {
  std::string text;
  for (auto open = sentence.find('{'); open != std::string_view::npos; open = sentence.find('{')) {
    const auto close = sentence.find('}', open);
    text += sentence.substr(0, open);
    text +=
        valueOf(std::string(sentence.substr(open + 1, close - open - 1)), message, all, module).value_or("?");
    sentence.remove_prefix(close + 1);
  }
  return text.append(sentence);
}

const LogMessage* findMeaning(const LogMessages& messages, const Meaning& meaning) {
  for (const LogMessage& message : messages) {
    if (message.format == meaning.format && (meaning.when == nullptr || meaning.when(message))) {
      return &message;
    }
  }
  return nullptr;
}

constexpr int kErrorPriority = 6;
constexpr std::size_t kLongestReason = 200;

bool isTheModules(Outcome outcome) {
  return outcome == Outcome::ModuleFailed || outcome == Outcome::TimedOut;
}

// The last error that the module told of itself, "NAME: failed at 60 percent"; empty when
// it told none.
std::string reasonOf(const LogMessages& messages, const std::string& module) {
  const std::string beginning = module + ": ";
  std::string reason;
  for (const LogMessage& message : messages) {
    if (message.format.empty() && message.priority >= kErrorPriority &&
        message.text.compare(0, beginning.size(), beginning) == 0) {
      reason = message.text.substr(beginning.size(), kLongestReason);
    }
  }
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == '.')) {
    reason.pop_back();
  }
  return reason;
}

Finding withReason(Finding finding, const LogMessages& messages, const std::string& module) {
  const std::string reason = isTheModules(finding.outcome) ? reasonOf(messages, module) : "";
  if (!reason.empty()) {
    finding.message += " It said: " + reason + ".";
  }
  return finding;
}

bool timedOut(const LogMessages& messages) {
  return std::any_of(messages.begin(), messages.end(), isTimeOut);
}

// For results whose reason the library does not log.
Finding explainSilence(int result, const LogMessages& messages, const std::string& module) {
  const bool procedure = findMessage(messages, MESSAGE_PROCEDURE_BEGINS) != nullptr;
  const bool tried = procedure || findMessage(messages, MESSAGE_LOCK_TAKEN) != nullptr;
  if (result == 0 && procedure) {
    return {Outcome::Updated, module + " ran its own update procedure.", ""};
  }
  if (result == 0 && tried) {
    return {Outcome::Unexpected,
            "The library stopped waiting for " + module +
                " before it was done, as it does when the set's clock is put forward.",
            "Start the update again when the clock is set."};
  }
  if (result == -1 && tried) {
    return {Outcome::ModuleFailed, module + " refused the request.",
            "Check that the component is connected and that --data is what the module expects."};
  }
  if (!tried && findMessage(messages, MESSAGE_CHECK_BEGINS) != nullptr) {
    return {Outcome::ModuleFailed,
            module + " answered " + answerText(result) +
                " when asked whether it needs the image; only 1 starts an update.",
            ""};
  }
  return {Outcome::Unexpected,
          "The library answered " + std::to_string(result) + " for " + module + " and gave no reason.",
          "See the log (--log)."};
}

}  // namespace

std::optional<Finding> strongestMeaning(const LogMessages& messages, const std::string& module) {
  for (const Meaning& meaning : meaningTable()) {
    if (const LogMessage* message = findMeaning(messages, meaning)) {
      return withReason({meaning.outcome, fill(meaning.sentence, *message, messages, module),
                         fill(meaning.remedy, *message, messages, module)},
                        messages, module);
    }
  }
  return std::nullopt;
}

Finding explainUpdate(int result, const LogMessages& messages, const std::string& module) {
  auto finding = strongestMeaning(messages, module);
  if (finding && finding->outcome != Outcome::TimedOut && timedOut(messages)) {
    finding->message += " The library noticed it only when its time limit was over.";
  }
  if (finding) {
    return *finding;
  }
  return withReason(explainSilence(result, messages, module), messages, module);
}

Finding brokeOff(const std::string& module, const std::exception& error) {
  return {Outcome::ModuleFailed, module + " broke off with an error of its own: " + error.what() + ".",
          "Install a version of the module that fits this device, or remove it."};
}

std::optional<TimeLimit> timeLimit(const LogMessages& messages) {
  const fwmessages::UpdateTracker tracker = trackerOf(messages);
  for (const fwmessages::Update& update : tracker.updates()) {
    if (update.limit) {
      return update.limit;
    }
  }
  return std::nullopt;
}

LogMessages checkOf(const LogMessages& messages, const std::string& library) {
  LogMessages check;
  bool itsOwn = false;
  for (const LogMessage& message : messages) {
    if (message.format == MESSAGE_RUN_BEGINS) {
      break;
    }
    if (message.format == MESSAGE_CHECK_BEGINS) {
      itsOwn = !message.arguments.empty() && message.arguments[0] == library;
      if (itsOwn) {
        check.clear();  // the last time counts
      }
    }
    if (itsOwn) {
      check.push_back(message);
    }
  }
  return check;
}

}  // namespace tool
