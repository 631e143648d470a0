// SPDX-License-Identifier: Apache-2.0
#include "soak-journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

namespace soak {
namespace {

constexpr const char* kPath = "/var/lib/fw-components/soak-journal";

}  // namespace

void journal(const char* event, pid_t process) {
  const std::string line = event + (" " + std::to_string(process)) + "\n";
  const int file = open(kPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
  close(file);
}

pid_t updatingProcess() {
  std::ifstream file(kPath, std::ios::ate);
  constexpr std::streamoff kLongest = 64;
  const std::streamoff size = file.tellg();
  file.seekg(std::max<std::streamoff>(0, size - kLongest));
  std::string last;
  for (std::string line; std::getline(file, line);) {
    last = line;
  }
  std::istringstream words(last);
  std::string event;
  pid_t process = 0;
  words >> event >> process;
  return event == "begin" ? process : 0;
}

JournalSummary readJournal() {
  JournalSummary summary;
  std::set<pid_t> inside;
  std::ifstream lines(kPath);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string event;
    pid_t process = 0;
    words >> event >> process;
    if (event == "begin") {
      summary.malformed += inside.insert(process).second ? 0U : 1U;
      ++summary.begun;
      summary.atOnce = std::max(summary.atOnce, inside.size());
      if (inside.size() > 1 && summary.firstOverlap.empty()) {
        summary.firstOverlap =
            "update " + std::to_string(summary.begun) + ", of process " + std::to_string(process);
      }
    } else if (event == "end") {
      summary.malformed += inside.erase(process) == 1 ? 0U : 1U;
      ++summary.ended;
    } else if (event == "killed") {
      summary.cutOff += inside.erase(process);
    } else {
      ++summary.malformed;
    }
  }
  summary.malformed += inside.size();
  return summary;
}

}  // namespace soak
