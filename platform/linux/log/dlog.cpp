// SPDX-License-Identifier: Apache-2.0
#include "dlog.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>

#include "library-messages.h"
#include "log/journal.h"
#include "printable-text.h"
#include "signal-guards.h"
#include "system-error.h"

namespace {

struct Level {
  int highestPriority;
  int syslogPriority;
  char letter;
};

constexpr Level kLevels[] = {
    {DLOG_DEBUG_PRIORITY, LOG_DEBUG, 'D'},
    {DLOG_INFO_PRIORITY, LOG_INFO, 'I'},
    {DLOG_WARN_PRIORITY, LOG_WARNING, 'W'},
    {DLOG_ERROR_PRIORITY, LOG_ERR, 'E'},
    {INT_MAX, LOG_CRIT, 'E'},
};

struct NamedLevel {
  std::string_view name;
  int lowestPriority;
};

constexpr NamedLevel kNamedLevels[] = {
    {"debug", INT_MIN},
    {"info", DLOG_INFO_PRIORITY},
    {"warning", DLOG_WARN_PRIORITY},
    {"error", DLOG_ERROR_PRIORITY},
};

const Level& levelOf(int priority) {
  const Level* level = kLevels;
  while (priority > level->highestPriority) {
    ++level;
  }
  return *level;
}

// True when writing to stderr may be tried again. A stderr that somebody made
// non-blocking gets a second to take more.
bool mayRetryWrite(int error) {
  if (error == EINTR) {
    return true;
  }
  if (error != EAGAIN) {
    return false;
  }
  constexpr int kPatienceMs = 1000;
  pollfd target = {STDERR_FILENO, POLLOUT, 0};
  return poll(&target, 1, kPatienceMs) > 0;
}

// One write for the whole line. A pipe that nobody reads does not end the process in
// the middle of an update. The lock matters for lines that are longer than
// a pipe takes at once: the kernel may split those.
int writeToStderr(std::string_view line) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  const base::HoldBackSigpipe holdBack;
  while (!line.empty()) {
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    if (written >= 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (const int error = errno; !mayRetryWrite(error)) {
      return -error;
    }
  }
  return 0;
}

void complain(const char* variable, const char* value, const char* known, const char* instead) {
  writeToStderr(std::string(variable) + ": unknown value \"" + base::printableText(value) +
                "\" (known: " + known + "); " + instead + "\n");
}

// The message, or a negative errno value in length. error is what %m shows.
std::string formatMessage(const char* format, va_list arguments, int error, int& length) {
  char fixed[1024];
  va_list again;
  va_copy(again, arguments);
  errno = error;
  length = std::vsnprintf(fixed, sizeof fixed, format, arguments);
  std::string message;
  if (length < 0) {
    length = -errno;
  } else if (static_cast<std::size_t>(length) < sizeof fixed) {
    message.assign(fixed, static_cast<std::size_t>(length));
  } else {
    message.resize(static_cast<std::size_t>(length));
    errno = error;
    // An argument that another thread shortened meanwhile gives a shorter text.
    const int second = std::vsnprintf(message.data(), message.size() + 1, format, again);
    length = second < length ? second : length;
    message.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  }
  va_end(again);
  return message;
}

std::string timeOfDay() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t seconds = now.tv_sec;
  std::tm local = {};
  localtime_r(&seconds, &local);
  char text[48];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(now.tv_nsec / 1000000));
  return text;
}

std::string_view withoutTrailingLineFeeds(std::string_view text) {
  const std::size_t last = text.find_last_not_of('\n');
  return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

// The library's messages begin with the place that they come from.
fwplatform::CodePlace placeOf(const char* format, va_list arguments) {
  constexpr std::string_view kPrefix = MESSAGE_PREFIX;
  fwplatform::CodePlace place;
  if (std::string_view(format).substr(0, kPrefix.size()) != kPrefix) {
    return place;
  }
  va_list walk;
  va_copy(walk, arguments);
  const char* const file = va_arg(walk, const char*);
  const char* const function = va_arg(walk, const char*);
  if (file != nullptr && function != nullptr) {
    place = {file, function, va_arg(walk, int)};
  }
  va_end(walk);
  return place;
}

// ---- Where messages go ----------------------------------------------------------

struct Line {
  const Level& level;
  std::string tag;
  std::string body;
  std::string ending;  // the message's line feeds
  const fwplatform::CodePlace& place;
};

int toJournal(const Line& line) {
  return fwplatform::writeToJournal(line.level.syslogPriority, line.tag, line.place, line.body);
}

int toSyslog(const Line& line) {
  syslog(LOG_USER | line.level.syslogPriority, "%s %s%s", line.tag.c_str(), line.body.c_str(),
         line.ending.c_str());
  return 0;
}

int toStderr(const Line& line) {
  return writeToStderr(timeOfDay() + ' ' + line.level.letter + ' ' + line.tag + ' ' + line.body + '\n');
}

// A new place for messages is a function above and a row here.
struct Sink {
  std::string_view name;
  int (*write)(const Line& line);  // null: nowhere
};

constexpr Sink kSinks[] = {
    {"journal", toJournal},
    {"syslog", toSyslog},
    {"stderr", toStderr},
    {"none", nullptr},
};
constexpr const Sink& kJournal = kSinks[0];
constexpr const Sink& kSyslog = kSinks[1];

const Sink& defaultSink() {
  return fwplatform::journalIsThere() ? kJournal : kSyslog;
}

std::string sinkNames() {
  std::string names;
  for (const Sink& sink : kSinks) {
    names += (names.empty() ? "" : ", ") + std::string(sink.name);
  }
  return names;
}

const Sink& chooseSink() {
  const char* setting = secure_getenv("FW_UPDATE_LOG");
  if (setting == nullptr) {
    return defaultSink();
  }
  for (const Sink& known : kSinks) {
    if (known.name == setting) {
      return &known == &kJournal ? defaultSink() : known;
    }
  }
  const Sink& sink = defaultSink();
  complain("FW_UPDATE_LOG", setting, sinkNames().c_str(),
           &sink == &kJournal ? "messages go to the journal" : "messages go to syslog");
  return sink;
}

int chooseLowestPriority() {
  const char* setting = secure_getenv("FW_UPDATE_LOG_LEVEL");
  if (setting == nullptr) {
    return INT_MIN;
  }
  for (const NamedLevel& known : kNamedLevels) {
    if (known.name == setting) {
      return known.lowestPriority;
    }
  }
  complain("FW_UPDATE_LOG_LEVEL", setting, "debug, info, warning, error", "every message is written");
  return INT_MIN;
}

struct Choice {
  const Sink* sink;
  int lowestPriority;
};

// Chosen once, so that the complaint comes once and a later change of the
// environment is no race.
const Choice& choice() {
  static const Choice kChoice = {&chooseSink(), chooseLowestPriority()};
  return kChoice;
}

int print(int error, int priority, const char* tag, const char* format, va_list arguments) {
  const Choice& chosen = choice();
  if (chosen.sink->write == nullptr || priority < chosen.lowestPriority) {
    return 0;
  }
  const fwplatform::CodePlace place = placeOf(format, arguments);
  int length = 0;
  const std::string message = formatMessage(format, arguments, error, length);
  if (length < 0) {
    return length;
  }
  const std::string_view body = withoutTrailingLineFeeds(message);
  const int status =
      chosen.sink->write({levelOf(priority), base::printableText(tag == nullptr ? "(null)" : tag),
                          base::printableText(body), message.substr(body.size()), place});
  return status < 0 ? status : length;
}

}  // namespace

int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
  const base::KeepErrno keepErrno;
  if (format == nullptr) {
    return -EINVAL;
  }
  va_list arguments;
  va_start(arguments, format);
  int result = -ENOMEM;
  try {
    result = print(keepErrno.saved(), priority, tag, format, arguments);
  } catch (const std::exception&) {
    // A log call has nobody to throw at; memory is all that can be missing here.
  }
  va_end(arguments);
  return result;
}
