// SPDX-License-Identifier: Apache-2.0
// fw-module check: reads the files, has the module inspected and puts the report out.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "commands.h"
#include "inspection.h"
#include "live-line.h"
#include "module-names.h"
#include "terminal.h"

namespace fwmodule {
namespace fs = std::filesystem;
namespace {

std::string readFile(const std::string& path) {
  std::error_code unreadable;
  const fs::file_status status = fs::status(path, unreadable);
  if (fs::is_directory(status)) {
    throw Failure(Outcome::NotPossible, path + " cannot be read: it is a directory");
  }
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    throw Failure(Outcome::NotPossible, path + " cannot be read: it is no regular file");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw Failure(Outcome::NotPossible, path + " cannot be read: " + std::strerror(errno));
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

Subject subjectOf(const Options& options) {
  Subject subject;
  subject.path = options.file;
  subject.library = fs::path(options.file).stem();
  subject.extension = fwnames::isExtensionModule(subject.library);
  subject.bytes = readFile(options.file);
  subject.version = options.version;
  subject.keepVisible = options.keepVisible;
  subject.cutPower = options.cutPower;
  if (options.image.empty()) {
    return subject;
  }
  subject.image = readFile(options.image);
  if (subject.image->empty() || subject.image->size() > INT_MAX) {
    throw Failure(Outcome::NotPossible, options.image + " is no image: it is empty or larger than 2 GiB");
  }
  return subject;
}

Report inspectWithLiveLine(const Options& options) {
  tool::LiveLine line(STDERR_FILENO);
  return inspect(subjectOf(options), std::chrono::seconds(options.limit),
                 [&line](const std::string& what) { line.show("checking: " + what); });
}

void writeJunit(const Report& report, const std::string& path) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << reportJunit(report)).flush()) {
    throw Failure(Outcome::NotPossible, path + " cannot be written: " + std::strerror(errno));
  }
}

}  // namespace

frame::Report runCheck(const Options& options) {
  const std::size_t width = tool::terminalWidth(STDOUT_FILENO);
  if (options.list) {
    return answerWithList(width);
  }
  for (const std::string& kept : options.keepVisible) {
    if (!fs::exists(kept)) {
      throw Failure(Outcome::NotPossible, "--keep " + kept + ": there is no such path");
    }
  }
  const Report report = inspectWithLiveLine(options);
  if (!options.junit.empty()) {
    writeJunit(report, options.junit);
  }
  return answerWith(report, width);
}

}  // namespace fwmodule
