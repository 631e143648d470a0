#include "isolation/child-story.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "library-messages.h"
#include "library/log-meanings.h"
#include "library/meaning-table.h"
#include "usb/usb-packages.h"

namespace tool {
namespace {

// After the library should have given up.
constexpr ChildStory::Seconds kGreatestMargin{10};

enum class Limit {
  Patience,  // the library waits for ever for this, and nothing takes long here
  Library,   // the library gives up by itself
  Margin,    // the library is not asked
  None,      // may take as long as it likes
};

constexpr struct StepInfo {
  Step step;
  const char* id;
  const char* words;
  Limit limit;
} kSteps[] = {
    {Step::Start, "start", "while the modules were being loaded", Limit::Patience},
    {Step::Load, "load", "while it was being loaded", Limit::Patience},
    {Step::Version, "version", "when it was asked for its version", Limit::Patience},
    {Step::Check, "check", "when it was asked whether it needs the image", Limit::Patience},
    {Step::Wait, "wait", "while its update waited for another one", Limit::None},
    {Step::Write, "write", "while it was updating", Limit::Library},
    {Step::Procedure, "procedure", "in its own update procedure", Limit::None},
    {Step::Package, "package", "while it was writing its package", Limit::None},
    {Step::Finish, "finish", "after its update", Limit::Patience},
    {Step::End, "end", "while the program ended", Limit::Margin},
};

const StepInfo& infoOf(Step step) {
  return *std::find_if(std::begin(kSteps), std::end(kSteps),
                       [step](const StepInfo& info) { return info.step == step; });
}

// The messages that a step begins with; their first argument is the firmware name,
// except where a step is over.
struct Beginning {
  const char* format;
  const char* function;  // null: of any
  Step step;
};

constexpr Beginning kBeginnings[] = {
    {MESSAGE_CHECK_BEGINS, nullptr, Step::Check},       {MESSAGE_LOCK_WANTED, nullptr, Step::Wait},
    {MESSAGE_LOCK_TAKEN, nullptr, Step::Write},         {MESSAGE_PROCEDURE_BEGINS, nullptr, Step::Procedure},
    {MESSAGE_WRITE_BEGINS, "updateUSB", Step::Package}, {MESSAGE_WRITE_SUCCEEDED, nullptr, Step::Finish},
    {MESSAGE_WRITE_FAILED, nullptr, Step::Finish},      {MESSAGE_REQUEST_ENDS, nullptr, Step::Finish},
    {MESSAGE_POWER_RELEASE, nullptr, Step::Finish},
};

const Beginning* beginningOf(const LogMessage& message) {
  for (const Beginning& beginning : kBeginnings) {
    if (message.format == beginning.format &&
        (beginning.function == nullptr || message.function == beginning.function)) {
      return &beginning;
    }
  }
  return nullptr;
}

// Empty when the message is not as the library writes it.
std::optional<unsigned int> givesUpOf(const LogMessage& message) try {
  const auto limit = timeLimit({message});
  return limit ? std::optional<unsigned int>(limit->givesUp) : std::nullopt;
} catch (const std::exception&) {
  return std::nullopt;
}

std::string argument(const LogMessage& message, std::size_t index) {
  return index < message.arguments.size() ? message.arguments[index] : "";
}

}  // namespace

void ChildStory::add(const Told& told) {
  std::visit([this](const auto& one) { hear(one); }, told);
}

void ChildStory::hear(const StepTold& told) {
  current_ = told;
  if (!told.firmware.empty()) {
    libraries_[told.firmware] = told.module;
  }
}

void ChildStory::hear(const ResultTold& told) {
  exitCode_ = told.exitCode;
  current_.step = Step::End;
}

void ChildStory::hear(const LogMessage& message) {
  messages_.push_back(message);
  if (message.format == MESSAGE_CHECK_BEGINS) {
    libraries_[argument(message, 1)] = argument(message, 0);
  }
  if (message.format == MESSAGE_LOCK_WANTED) {
    lockUsed_ = true;
    givesUp_ = givesUpOf(message);
  }
  if (const auto library = libraryOfPackage(message); !library.empty()) {
    current_ = {Step::Check, library, ""};
  }
  if (message.format == MESSAGE_WRITE_SUCCEEDED) {
    updated_[libraries_[argument(message, 0)]] = true;
  }
  if (isTimeOut(message)) {
    enter(Step::Finish, "");
  } else if (const Beginning* beginning = beginningOf(message)) {
    enter(beginning->step, beginning->step == Step::Finish ? "" : argument(message, 0));
  }
}

// Of a message about a package file; empty for others.
std::string ChildStory::libraryOfPackage(const LogMessage& message) const {
  const bool isAboutPackage = message.function == "zaq_verify" || message.function == "getNeedUpdateList" ||
                              message.function == "updateUSB";
  for (const std::string& path : isAboutPackage ? message.arguments : std::vector<std::string>{}) {
    const auto slash = path.rfind('/');
    const auto end = path.rfind(".bin");
    if (slash == std::string::npos || end == std::string::npos || end < slash) {
      continue;
    }
    const auto library = libraries_.find(path.substr(slash + 1, end - slash - 1));
    if (library != libraries_.end()) {
      return library->second;
    }
  }
  return "";
}

// Keeps the module where the message tells none. needTry names the library first.
void ChildStory::enter(Step step, const std::string& firmware) {
  current_.step = step;
  const auto library = libraries_.find(firmware);
  if (step == Step::Check) {
    current_.module = firmware;
  } else if (library != libraries_.end()) {
    current_.module = library->second;
  }
}

std::optional<ChildStory::Seconds> ChildStory::allowedSilence(Seconds patience) const {
  const Limit limit = infoOf(current_.step).limit;
  if (limit == Limit::None) {
    return std::nullopt;
  }
  if (limit == Limit::Library && givesUp_) {
    return Seconds(*givesUp_) + std::min(patience, kGreatestMargin);
  }
  return limit == Limit::Margin ? std::min(patience, kGreatestMargin) : patience;
}

const char* wordsOf(Step step) {
  return infoOf(step).words;
}

const char* idOf(Step step) {
  return infoOf(step).id;
}

}  // namespace tool
