// SPDX-License-Identifier: Apache-2.0
// fw-module new: says what was written and what to do next.
#include "commands.h"
#include "module-name.h"
#include "outcome.h"
#include "project.h"
#include "templates.h"

namespace fwmodule {
namespace {

Json::Value jsonOf(const ModuleName& name, const std::string& directory,
                   const std::vector<std::string>& files) {
  Json::Value json;
  json["directory"] = directory;
  json["library"] = name.library;
  json["kind"] = name.extension ? "EXT" : "ordinary";
  json["firmware"] = name.firmware;
  for (const std::string& file : files) {
    json["files"].append(file);
  }
  return json;
}

std::string textOf(const std::string& directory, const std::vector<std::string>& files) {
  std::string text;
  for (const std::string& file : files) {
    text.append("written  ").append(directory).append("/").append(file).append("\n");
  }
  return text + "next     cmake -S " + directory + " -B " + directory + "/build\n" +  //
         "         cmake --build " + directory + "/build\n" +                         //
         "         ctest --test-dir " + directory + "/build\n";
}

}  // namespace

frame::Report runNew(const Options& options) {
  const ModuleName name = parseModuleName(options.name);
  const std::string directory = options.directory.empty() ? options.name : options.directory;
  const auto files = writeProject(directory, name, *findLanguage(options.language));
  frame::Report report(Outcome::Ok);
  report.body = textOf(directory, files);
  report.details = jsonOf(name, directory, files);
  return report;
}

}  // namespace fwmodule
