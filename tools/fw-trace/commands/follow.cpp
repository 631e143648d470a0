// SPDX-License-Identifier: Apache-2.0
// fw-trace follow: what is in the traces and, until it is interrupted, what comes.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <list>
#include <set>
#include <string>

#include "../commands.h"
#include "../entry-line.h"
#include "../selection.h"
#include "text-layout.h"

namespace tracetool {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void onSignal(int) {
  interrupted = 1;
}

// Writing into a mapping wakes nobody up: it has to be looked at again and again.
constexpr int kLookAgainMs = 200;

void endOnInterrupt() {
  struct sigaction action = {};
  action.sa_handler = onSignal;  // without SA_RESTART: the wait ends at once
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal, &action, nullptr);
  }
}

// The traces that are followed. Each is read once; what the living write is read at each
// look.
class Following {
 public:
  explicit Following(const Options& options) : options_(options) {}

  // Takes up what is new. Says why when a trace that was named is not there.
  frame::Report look();

  std::list<TraceReading>& readings() { return readings_; }
  std::vector<TraceFile> files() const {
    std::vector<TraceFile> files;
    std::transform(readings_.begin(), readings_.end(), std::back_inserter(files),
                   [](const TraceReading& reading) { return reading.file; });
    return files;
  }

 private:
  using Identity = std::pair<std::string, std::uint64_t>;

  static Identity identityOf(const TraceFile& file) { return {file.path, file.inode}; }
  bool isWanted(const TraceFile& file) const {
    const auto& names = options_.traces;
    return names.empty() ||
           std::find(names.begin(), names.end(), std::to_string(file.trace.processId)) != names.end();
  }
  void lookIntoDirectory();
  frame::Report lookAtFile(const std::string& path);
  frame::Report lookForProcess(const std::string& number) const;
  void take(TraceFile file, bool wanted);

  const Options& options_;
  std::list<TraceReading> readings_;
  std::set<Identity> known_;
};

void Following::take(TraceFile file, bool wanted) {
  // One that cannot be read is perhaps only begun.
  if (file.problem.empty() && known_.insert(identityOf(file)).second && wanted) {
    readings_.emplace_back(std::move(file));
  }
}

void Following::lookIntoDirectory() {
  std::string ignored;  // an empty directory fills up
  for (const FoundTrace& found : tracesIn(options_.directory, ignored)) {
    if (known_.count({found.path, found.inode}) == 0) {
      TraceFile file = openTrace(found.path);
      const bool wanted = isWanted(file);
      take(std::move(file), wanted);
    }
  }
}

frame::Report Following::lookAtFile(const std::string& path) {
  TraceFile file = openTrace(path);
  if (!file.problem.empty()) {
    return frame::Report(Outcome::Unreadable, path + ": " + file.problem);
  }
  take(std::move(file), true);
  return frame::Report(Outcome::Ok);
}

frame::Report Following::lookForProcess(const std::string& number) const {
  const bool found = std::any_of(readings_.begin(), readings_.end(), [&](const TraceReading& reading) {
    return std::to_string(reading.file.trace.processId) == number;
  });
  return found ? frame::Report(Outcome::Ok)
               : frame::Report(Outcome::NothingFound, "There is no trace of process " + number + ".");
}

frame::Report Following::look() {
  for (TraceReading& reading : readings_) {
    if (reading.file.alive) {
      reading.readOn();
    }
  }
  const auto& names = options_.traces;
  if (names.empty() || std::any_of(names.begin(), names.end(), isProcessId)) {
    lookIntoDirectory();
  }
  for (const std::string& name : names) {
    frame::Report report = isProcessId(name) ? lookForProcess(name) : lookAtFile(name);
    if (report.ending != Outcome::Ok) {
      return report;
    }
  }
  readings_.sort([](const TraceReading& a, const TraceReading& b) { return startsEarlier(a.file, b.file); });
  return frame::Report(Outcome::Ok);
}

void showNew(const Options& options, std::list<TraceReading>& readings, Filter& filter) {
  for (RecordStream stream(readings); interrupted == 0 && std::cout.good() && stream.next();) {
    const Entry entry{&stream.reading().file, stream.message()};
    filter.learn(entry.message);
    if (filter.accepts(entry.message)) {
      std::cout << (options.json ? tool::onOneLine(jsonOf(entry)) : lineOf(entry));
    }
  }
  std::cout << std::flush;
}

}  // namespace

frame::Report runFollow(const Options& options) {
  endOnInterrupt();
  Following following(options);
  Filter filter(options);
  bool learned = !filter.hasToLearn();
  while (interrupted == 0 && std::cout.good()) {
    frame::Report problem = following.look();
    if (problem.ending != Outcome::Ok) {
      return problem;
    }
    if (!learned && !following.readings().empty()) {
      std::list<TraceReading> all = readingsOf(following.files());
      learn(filter, all);
      learned = true;
    }
    showNew(options, following.readings(), filter);
    poll(nullptr, 0, kLookAgainMs);
  }
  if (interrupted != 0) {
    std::cout.clear();  // a write that the interruption cut off is no output that was lost
  }
  frame::Report report(Outcome::Ok);
  report.raw = true;  // everything was put out as it came
  return report;
}

}  // namespace tracetool
