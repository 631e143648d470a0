// SPDX-License-Identifier: Apache-2.0
// What a command found, and how it is put out: as text for people or as one JSON
// document, which has the same members in every program. A plain value, made by a command
// at its end and put out once.
#ifndef TOOLS_SHARED_FRAME_REPORT_H
#define TOOLS_SHARED_FRAME_REPORT_H

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "frame/outcome.h"

namespace frame {

struct Report {
  explicit Report(Ending ended, std::string sentence = "", std::string help = "")
      : ending(ended), message(std::move(sentence)), remedy(std::move(help)) {}

  Ending ending;
  std::string message;                     // one sentence; may be empty when the body says it
  std::string remedy;                      // what to do about it; may be empty
  std::string body;                        // the command's own text, whole lines
  std::vector<std::string> remarks;        // on standard error, beside the text
  Json::Value details{Json::objectValue};  // the command's own members of the document
  bool raw = false;                        // the body is a document of its own
  bool endsAtOnce = false;                 // a thread that nothing ends is not waited for
};

enum class Form { Text, Json, Ndjson };

// "command", "ok", "outcome", "exitCode", "message", "remedy" and the command's own.
Json::Value documentOf(const Report& report, const std::string& command);

// The exit code, or unexpected's when standard output has failed.
int put(const Report& report, const char* program, const std::string& command, Form form, Ending unexpected);

// One JSON object on a line of its own, at once.
void putEvent(const Json::Value& event);

// "program: sentence" in as many lines as the terminal needs, and the remedy below.
void complain(const char* program, const std::string& sentence, const std::string& remedy);

}  // namespace frame

#endif
