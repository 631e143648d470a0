// SPDX-License-Identifier: Apache-2.0
// fw-trace: the traces of firmware updates.
#include <new>
#include <string>

#include "commands.h"
#include "export/format.h"
#include "frame/program.h"
#include "options.h"
#include "outcome.h"
#include "time-text.h"

namespace {

using tracetool::Options;
using tracetool::Outcome;
using Option = frame::Option<Options>;

std::string timeProblem(const std::string& text) {
  return tracetool::isTimeText(text) ? ""
                                     : "not a time: " + text + " (14:03, 14:03:07.5 or 2026-01-31T14:03:07)";
}

std::string formatProblem(const std::string& name) {
  return tracetool::findFormat(name) != nullptr ? "" : "there is no format " + name;
}

constexpr Option kCommon[] = {
    {"--directory DIR", &Options::directory, "Where the traces are"},
};

constexpr Option kTraces[] = {
    {"TRACE", &Options::traces, "Files or process ids; without any, all of the directory"},
};

constexpr Option kWanted[] = {
    Option("--module NAME", &Options::module, "Only messages that name this module or its firmware")
        .completedWith(frame::Completes::Modules),
    {"--function NAME", &Options::function, "Only messages of this function"},
    Option("--since TIME", &Options::since, "Only from then on: 14:03:07.5 or 2026-01-31T14:03")
        .checked(timeProblem),
    Option("--until TIME", &Options::until, "Only up to this time").checked(timeProblem),
};

constexpr Option kExport[] = {
    Option("--format FORMAT", &Options::format, "")
        .required()
        .checked(formatProblem)
        .of(tracetool::formatNames),
    {"-o,--output FILE", &Options::output, "Write to this file instead of standard output"},
};

constexpr frame::Command<Options> kCommands[] = {
    {{"list", "List the traces: which process, when, alive or dead", "fw-trace list"},
     {kTraces},
     tracetool::runList},
    {{"show", "Show the messages in time order over all threads",
      "fw-trace show --module libtuner --since 14:03"},
     {kTraces, kWanted},
     tracetool::runShow},
    {{"follow", "Show the messages, then those that come, until Ctrl-C", "fw-trace follow"},
     {kTraces, kWanted},
     tracetool::runFollow},
    {{"export", "Write the timeline for another program", "fw-trace export --format perfetto -o trace.json"},
     {kTraces, kExport},
     tracetool::runExport},
    {{"summary", "Show per module: attempts, results, where the time went", "fw-trace summary"},
     {kTraces},
     tracetool::runSummary},
};

std::string whereTracesAre() {
  return "The traces are in " + tracetool::defaultDirectory() + " (FW_UPDATE_TRACE).\n";
}

frame::Report explain(const std::exception& error) {
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    return frame::Report(Outcome::Unexpected,
                         "There is not enough memory for these traces; name fewer of them.");
  }
  return frame::Report(Outcome::Unexpected, std::string("Unexpected error: ") + error.what());
}

constexpr frame::Program<Options> kProgram = {
    {"fw-trace",
     "Shows what firmware updates did, from the traces that processes leave.",
     "Each command explains itself: fw-trace show --help",
     tracetool::kOutcomes,
     Outcome::Usage,
     Outcome::Unexpected,
     24,
     nullptr,
     {},
     whereTracesAre,
     "Print JSON on standard output",
     explain},
    kCommon,
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  return frame::perform(kProgram, argc, argv);
}
