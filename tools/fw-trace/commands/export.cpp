// SPDX-License-Identifier: Apache-2.0
// fw-trace export
#include <cstdio>
#include <memory>

#include "../commands.h"
#include "../export/format.h"
#include "../selection.h"

namespace tracetool {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

bool writeFile(const std::string& path, const std::string& text) {
  std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "we"));
  if (!file || std::fwrite(text.data(), 1, text.size(), file.get()) != text.size()) {
    return false;
  }
  return std::fclose(file.release()) == 0;
}

}  // namespace

frame::Report runExport(const Options& options) {
  Selection selection = selectTraces(options);
  frame::Report report = selection.problem;
  loadRecords(selection.files);
  addSkipped(report, selection.files);
  if (report.ending != Outcome::Ok) {
    return report;
  }
  const std::string document = findFormat(options.format)->write(timelineOf(selection.files));
  report.details["format"] = options.format;
  if (options.output.empty()) {
    report.body = document;
    report.raw = true;
  } else if (writeFile(options.output, document)) {
    report.details["output"] = options.output;
    report.message = "Written to " + options.output + ".";
  } else {
    report.ending = Outcome::Unreadable;
    report.message = options.output + " cannot be written.";
  }
  return report;
}

}  // namespace tracetool
