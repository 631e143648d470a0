// SPDX-License-Identifier: Apache-2.0
#include "library/library-log.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>

#include "dlog.h"
#include "isolation/service-gate.h"
#include "isolation/supervised.h"
#include "library-messages.h"

namespace tool {
namespace {

using PlatformPrint = int (*)(int, int, const char*, const char*, ...);

constexpr std::size_t kPrefixLength = sizeof MESSAGE_PREFIX - 1;

PlatformPrint platformPrint() {
  static const auto kPrint = reinterpret_cast<PlatformPrint>(dlsym(RTLD_NEXT, "__dlog_print"));
  return kPrint;
}

std::string orNull(const char* text) {
  return text != nullptr ? text : "(null)";
}

std::string render(const char* format, va_list arguments, int errorNumber) {
  va_list again;
  va_copy(again, arguments);
  errno = errorNumber;
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  errno = errorNumber;
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

// The library's messages use %s, %d and %m alone; at any other conversion the
// walk ends, since the size of its argument is not known.
std::vector<std::string> argumentTexts(const char* format, va_list arguments, int errorNumber) {
  std::vector<std::string> texts;
  for (const char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at + 2, '%')) {
    if (at[1] == 's') {
      texts.push_back(orNull(va_arg(arguments, const char*)));
    } else if (at[1] == 'd') {
      texts.push_back(std::to_string(va_arg(arguments, int)));
    } else if (at[1] == 'm') {
      texts.emplace_back(std::strerror(errorNumber));
    } else if (at[1] != '%') {
      break;
    }
  }
  return texts;
}

// Keeps the message and returns it as one line, prefix included.
std::string record(int priority, const char* format, va_list arguments, int errorNumber) {
  LogMessage message;
  message.time = std::chrono::steady_clock::now();
  message.priority = priority;
  message.errorNumber = errorNumber;
  message.thread = gettid();
  message.file = orNull(va_arg(arguments, const char*));
  message.function = orNull(va_arg(arguments, const char*));
  message.line = va_arg(arguments, int);
  message.format = format + kPrefixLength;
  va_list walk;
  va_copy(walk, arguments);
  message.arguments = argumentTexts(message.format.c_str(), walk, errorNumber);
  va_end(walk);
  message.text = render(message.format.c_str(), arguments, errorNumber);
  std::string line =
      message.file + ": " + message.function + "(" + std::to_string(message.line) + ") > " + message.text;
  LibraryLog::instance().add(std::move(message));
  return line;
}

// What a module says of itself, under the library's tag: a message without a format.
std::string keep(int priority, const std::string& text) {
  LogMessage message;
  message.time = std::chrono::steady_clock::now();
  message.priority = priority;
  message.thread = gettid();
  message.text = text;
  LibraryLog::instance().add(std::move(message));
  return text;
}

// What the platform is to write.
std::string lineOf(int priority, const char* tag, const char* format, va_list arguments, int errorNumber) {
  if (format == nullptr) {
    return orNull(format);
  }
  const bool ofLibrary = tag != nullptr && std::strcmp(tag, fwmessages::kTag) == 0 &&
                         std::strncmp(format, MESSAGE_PREFIX, kPrefixLength) == 0;
  if (ofLibrary) {
    return record(priority, format, arguments, errorNumber);
  }
  const std::string text = render(format, arguments, errorNumber);
  const bool underItsTag = tag != nullptr && std::strcmp(tag, fwmessages::kTag) == 0;
  return underItsTag ? keep(priority, text) : text;
}

}  // namespace

LibraryLog& LibraryLog::instance() {
  static auto* const kLog = new LibraryLog;
  return *kLog;
}

void LibraryLog::add(LogMessage message) {
  const auto event = fwmessages::eventOf(message.format, message.function, message.arguments.size());
  {
    const std::lock_guard lock(mutex_);
    if (!message.format.empty()) {  // a module that only talks does not get on
      supervised::tellMessage(message);
    }
    messages_.push_back(std::move(message));
  }
  passServiceGate(event);
}

std::size_t LibraryLog::mark() const {
  const std::lock_guard lock(mutex_);
  return messages_.size();
}

LogMessages LibraryLog::since(std::size_t mark) const {
  const std::lock_guard lock(mutex_);
  if (mark >= messages_.size()) {
    return {};
  }
  return LogMessages(messages_.begin() + static_cast<std::ptrdiff_t>(mark), messages_.end());
}

const LogMessage* findMessage(const LogMessages& messages, const char* format) {
  for (const LogMessage& message : messages) {
    if (message.format == format) {
      return &message;
    }
  }
  return nullptr;
}

fwmessages::Logged loggedOf(const LogMessage& message) {
  fwmessages::Logged logged;
  logged.event = fwmessages::eventOf(message.format, message.function, message.arguments.size());
  logged.time = std::chrono::nanoseconds(message.time.time_since_epoch()).count();
  logged.threadId = static_cast<std::uint32_t>(message.thread);
  logged.text = message.text;
  logged.arguments = message.arguments;
  return logged;
}

fwmessages::UpdateTracker trackerOf(const LogMessages& messages) {
  fwmessages::UpdateTracker tracker;
  for (const LogMessage& message : messages) {
    tracker.take(loggedOf(message));
  }
  return tracker;
}

}  // namespace tool

// Stands in front of the platform's function of this name. A module may log
// too; only what has the library's tag and prefix is kept.
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
  const int errorNumber = errno;
  int written = -ENOMEM;
  va_list arguments;
  va_start(arguments, format);
  try {
    const std::string line = tool::lineOf(priority, tag, format, arguments, errorNumber);
    // Not before the line is rendered: looking it up may free a dlerror text among the arguments.
    const auto print = tool::platformPrint();
    errno = errorNumber;
    written =
        print != nullptr ? print(log_id, priority, tag, "%s", line.c_str()) : static_cast<int>(line.size());
  } catch (const std::exception&) {
    // A log call has nobody to throw at.
  }
  va_end(arguments);
  errno = errorNumber;
  return written;
}
