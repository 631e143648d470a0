// SPDX-License-Identifier: Apache-2.0
// The ways to tell how something goes while it runs, and which of them a command line asks for.
#ifndef FW_UPDATE_TOOL_TELLING_H
#define FW_UPDATE_TOOL_TELLING_H

#include <memory>

#include "command-line.h"

namespace tool {

enum class Telling {
  Events,    // one JSON object a line
  Document,  // one JSON document at the end, nothing before
  Live,      // one line on the terminal, in its place
  Lines,     // plain lines, few of them
};

Telling tellingOf(const Options& options);

// Whether standard output is a terminal that a line can be redrawn on; the
// platform's log on the same terminal would break it up.
bool hasLiveLine();

// A reporter for each way.
template <typename Reporter, typename Events, typename Document, typename Live, typename Lines>
std::unique_ptr<Reporter> makeReporter(const Options& options) {
  switch (tellingOf(options)) {
    case Telling::Events:
      return std::make_unique<Events>();
    case Telling::Document:
      return std::make_unique<Document>();
    case Telling::Live:
      return std::make_unique<Live>();
    case Telling::Lines:
      break;
  }
  return std::make_unique<Lines>();
}

}  // namespace tool

#endif
