// SPDX-License-Identifier: Apache-2.0
// Fuzz target: everything that fw-trace does with a file's bytes.
#include "trace-reader.h"

#include <json/reader.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "entry-line.h"
#include "export/format.h"
#include "fuzz-target.h"
#include "timeline.h"

namespace {

bool isControl(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

void requireOneSafeLine(const tracetool::Entry& entry) {
  const std::string line = tracetool::lineOf(entry);
  fuzz::require(
      !line.empty() && line.back() == '\n' && std::count_if(line.begin(), line.end(), isControl) == 1,
      "a message is one line, and nothing in it controls a terminal");
}

void requireJson(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  fuzz::require(reader->parse(text.data(), text.data() + text.size(), &document, nullptr),
                "what is exported as JSON is JSON");
}

auto tagsIn(const std::string& page) {
  return std::count(page.begin(), page.end(), '<');
}

void requireNoOtherTags(const tracetool::Timeline& timeline) {
  static const auto kOwnTags = tagsIn(tracetool::exportHtml({}));
  fuzz::require(tagsIn(tracetool::exportHtml(timeline)) == kOwnTags, "no message adds to the page's tags");
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>&) {
  setenv("NO_COLOR", "1", 1);  // which lines may hold, even on a terminal
}

bool fuzz::accepts(std::string_view input) {
  auto result = tracetool::readTrace(input);
  const bool whole = result.problem.empty() && result.trace.skipped.empty();
  std::vector<tracetool::TraceFile> files(1);
  files[0].problem = result.problem;
  files[0].trace = std::move(result.trace);
  const auto timeline = tracetool::timelineOf(files);
  std::for_each(timeline.entries.begin(), timeline.entries.end(), requireOneSafeLine);
  const std::string json = tracetool::exportJson(timeline);
  requireJson(json);
  requireJson(tracetool::exportPerfetto(timeline));
  // The page is large; it is made for what could end its script alone.
  if (json.find("</") != std::string::npos || json.find("<!") != std::string::npos) {
    requireNoOtherTags(timeline);
  }
  return whole;
}
