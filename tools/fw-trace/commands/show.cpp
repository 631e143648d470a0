// fw-trace show
#include "../commands.h"
#include "../entry-line.h"
#include "../filter.h"
#include "../selection.h"

namespace tracetool {

frame::Report runShow(const Options& options) {
  Selection selection = selectTraces(options);
  frame::Report report = selection.problem;
  report.details["messages"] = Json::arrayValue;
  const std::vector<Entry> entries = entriesOf(selection.files);
  const Filter filter(options, entries);
  for (const Entry& entry : entries) {
    if (!filter.accepts(entry.message)) {
      continue;
    }
    if (options.json) {
      report.details["messages"].append(jsonOf(entry));
    } else {
      report.body += lineOf(entry);
    }
  }
  if (report.ending == Outcome::Ok && report.body.empty() && report.details["messages"].empty()) {
    report.ending = Outcome::NothingFound;
    report.message = "No message fits.";
  }
  addSkipped(report, selection.files);
  return report;
}

}  // namespace tracetool
