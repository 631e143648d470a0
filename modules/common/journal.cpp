// SPDX-License-Identifier: Apache-2.0
#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <exception>

#include "posix-file.h"

namespace fwcomponent {
namespace {

std::string timeText() {
  const std::time_t now = std::time(nullptr);
  struct tm parts {};
  char text[sizeof "2000-01-01T00:00:00Z"];
  if (::gmtime_r(&now, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    return "-";
  }
  return text;
}

// Texts of callers and file names must not start a line of their own.
void blankControlCharacters(std::string& line) {
  const auto isControl = [](char character) { return static_cast<unsigned char>(character) < 0x20; };
  std::replace_if(line.begin(), line.end(), isControl, '?');
}

}  // namespace

bool appendToJournal(const std::string& component, const std::string& event) noexcept try {
  std::string line = timeText() + ' ' + std::to_string(::getpid()) + ' ' + component + ' ' + event;
  blankControlCharacters(line);
  line += '\n';
  const FileDescriptor file = openFile(kComponentsDirectory + std::string("journal.log"),
                                       O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0644);
  // One write, so that the lines of several processes do not mix.
  return ::write(file.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
} catch (const std::exception&) {
  return false;
}

}  // namespace fwcomponent
