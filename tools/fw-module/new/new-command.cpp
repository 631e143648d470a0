// fw-module new: says what was written and what to do next.
#include <json/value.h>

#include <iostream>

#include "commands.h"
#include "module-name.h"
#include "project.h"
#include "text-layout.h"

namespace fwmodule {
namespace {

void putJson(const ModuleName& name, const std::string& directory, const std::vector<std::string>& files) {
  Json::Value document;
  document["command"] = "new";
  document["ok"] = true;
  document["outcome"] = infoOf(Outcome::Ok).id;
  document["exitCode"] = infoOf(Outcome::Ok).exitCode;
  document["directory"] = directory;
  document["library"] = name.library;
  document["kind"] = name.extension ? "EXT" : "ordinary";
  document["firmware"] = name.firmware;
  for (const std::string& file : files) {
    document["files"].append(file);
  }
  std::cout << tool::indented(document) << std::flush;
}

void putText(const std::string& directory, const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    std::cout << "written  " << directory << "/" << file << "\n";
  }
  std::cout << "next     cmake -S " << directory << " -B " << directory << "/build\n"
            << "         cmake --build " << directory << "/build\n"
            << "         ctest --test-dir " << directory << "/build" << std::endl;
}

}  // namespace

Outcome runNew(const Options& options) {
  const ModuleName name = parseModuleName(options.name);
  const std::string directory = options.directory.empty() ? options.name : options.directory;
  const auto files = writeProject(directory, name, *findLanguage(options.language));
  if (options.json) {
    putJson(name, directory, files);
  } else {
    putText(directory, files);
  }
  return Outcome::Ok;
}

}  // namespace fwmodule
