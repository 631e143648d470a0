// fw-trace follow: what is in the traces and, until it is interrupted, what comes.
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <utility>

#include "../commands.h"
#include "../entry-line.h"
#include "../filter.h"
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

// How far each thread of each trace was shown; its messages come in time order.
using Shown = std::map<std::pair<std::string, std::uint32_t>, std::int64_t>;

void showNew(const Options& options, Selection& selection, Shown& shown) {
  const std::vector<Entry> entries = entriesOf(selection.files);
  const Filter filter(options, entries);
  for (const Entry& entry : entries) {
    auto& last = shown.try_emplace({entry.file->path, entry.message.threadId}, INT64_MIN).first->second;
    if (entry.message.time <= last) {
      continue;
    }
    last = entry.message.time;
    if (filter.accepts(entry.message)) {
      std::cout << (options.json ? tool::onOneLine(jsonOf(entry)) : lineOf(entry));
    }
  }
  std::cout << std::flush;
}

}  // namespace

frame::Report runFollow(const Options& options) {
  endOnInterrupt();
  Shown shown;
  while (interrupted == 0 && std::cout.good()) {
    Selection selection = selectTraces(options);
    // An empty directory fills up; a named file that cannot be read does not.
    if (selection.problem.ending != Outcome::Ok && !options.traces.empty()) {
      return selection.problem;
    }
    showNew(options, selection, shown);
    poll(nullptr, 0, kLookAgainMs);
  }
  frame::Report report(Outcome::Ok);
  report.raw = true;  // everything was put out as it came
  return report;
}

}  // namespace tracetool
