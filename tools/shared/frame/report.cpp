// SPDX-License-Identifier: Apache-2.0
#include "frame/report.h"

#include <unistd.h>

#include <iostream>

#include "printable-text.h"
#include "terminal.h"
#include "text-layout.h"

namespace frame {
namespace {

// Where nothing limits a line, what is in it stays as it is.
std::string shown(const std::string& text, int descriptor) {
  const std::size_t width = tool::terminalWidth(descriptor);
  return width == std::string::npos ? base::printableText(text) : tool::wrapped(text, width);
}

void putMessage(const Report& report) {
  const Tone tone = report.ending->tone;
  if (report.message.empty() || (tone == Tone::Answer && !report.body.empty())) {
    return;
  }
  const tool::Colour colour = tone == Tone::Notice ? tool::Colour::Bold : tool::Colour::Green;
  std::cout << tool::coloured(shown(report.message, STDOUT_FILENO), colour, STDOUT_FILENO) << '\n';
}

void putText(const Report& report, const char* program) {
  std::cout << report.body << std::flush;
  for (const std::string& remark : report.remarks) {
    std::cerr << tool::coloured(std::string(program) + ": ", tool::Colour::Yellow, STDERR_FILENO) << remark
              << '\n';
  }
  if (report.ending->tone != Tone::Failure) {
    putMessage(report);
  } else if (!report.message.empty()) {
    complain(program, report.message, report.remedy);
  }
  std::cout << std::flush;
}

}  // namespace

Json::Value documentOf(const Report& report, const std::string& command) {
  Json::Value document = report.details;
  document["command"] = command;
  document["ok"] = report.ending->exitCode == 0;
  document["outcome"] = report.ending->id;
  document["exitCode"] = report.ending->exitCode;
  if (!report.message.empty() && !document.isMember("message")) {  // else one for programs
    document["message"] = report.message;
  }
  if (!report.remedy.empty()) {
    document["remedy"] = report.remedy;
  }
  return document;
}

int put(const Report& report, const char* program, const std::string& command, Form form, Ending unexpected) {
  if (form == Form::Text || report.raw) {
    putText(report, program);
  } else if (form == Form::Json) {
    std::cout << tool::indented(documentOf(report, command)) << std::flush;
  } else {
    Json::Value result = documentOf(report, command);
    result["event"] = "result";
    putEvent(result);
  }
  return std::cout.good() ? report.ending->exitCode : unexpected->exitCode;
}

void putEvent(const Json::Value& event) {
  std::cout << tool::onOneLine(event) << std::flush;
}

void complain(const char* program, const std::string& sentence, const std::string& remedy) {
  const std::string prefix = std::string(program) + ": ";
  const std::string text = shown(prefix + sentence, STDERR_FILENO);
  std::cerr << tool::coloured(prefix, tool::Colour::Red, STDERR_FILENO) << text.substr(prefix.size()) << '\n';
  if (!remedy.empty()) {
    std::cerr << shown(remedy, STDERR_FILENO) << '\n';
  }
  std::cerr << std::flush;
}

}  // namespace frame
