// SPDX-License-Identifier: Apache-2.0
#include "job-child.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

#include "json-text.h"
#include "program-start.h"

namespace updated {
namespace {

constexpr std::size_t kLongestLine = std::size_t{1} << 20;
constexpr off_t kMostKept = off_t{1} << 20;  // of what was read
constexpr std::chrono::milliseconds kLongestPause{2000};

bool printsDocument(Kind kind) {
  return kind == Kind::UsbEstimate;
}

std::vector<std::string> environmentFor(const std::string& gate, uid_t user) {
  std::vector<std::string> environment;
  for (std::string& variable : base::environmentWithout(fwjobs::kGateVariable)) {
    if (variable.rfind(std::string(fwjobs::kAskedByVariable) + "=", 0) != 0 &&
        variable.rfind("NOTIFY_SOCKET=", 0) != 0) {
      environment.push_back(std::move(variable));
    }
  }
  environment.push_back(std::string(fwjobs::kGateVariable) + "=" + gate);
  environment.push_back(std::string(fwjobs::kAskedByVariable) + "=" + std::to_string(user));
  return environment;
}

std::vector<std::string> usbArguments(const Tool& tool, const Request& request, const char* command) {
  std::vector<std::string> words{"usb", command};
  if (!request.folder.empty()) {
    words.push_back(request.folder);
  }
  words.push_back("--key-file=" + tool.keyFile);
  return words;
}

}  // namespace

std::vector<std::string> argumentsFor(const Tool& tool, const Request& request) {
  switch (request.kind) {
    case Kind::Update:
      break;
    case Kind::UpdateAll:
      return {"update-all"};
    case Kind::UsbApply:
      return usbArguments(tool, request, "apply");
    case Kind::UsbEstimate:
      return usbArguments(tool, request, "estimate");
    case Kind::Download:
      return {"download", request.module, "--wait"};
  }
  std::vector<std::string> words{"update", request.module, "--caller=" + request.caller};
  if (!request.data.empty()) {
    words.push_back("--data=" + request.data);
  }
  return words;
}

std::vector<std::string> environmentForEntry(const Request& request) {
  return {std::string(fwjobs::kOnlyEntryVariable) + "=" + std::to_string(getpid()),
          std::string(fwjobs::kAskedByVariable) + "=" + std::to_string(request.user)};
}

std::vector<std::string> commandFor(const Tool& tool, const Request& request) {
  std::vector<std::string> words = argumentsFor(tool, request);
  words.insert(words.begin(), tool.program);
  if (printsDocument(request.kind)) {
    words.emplace_back("--json");
    return words;
  }
  if (request.kind != Kind::Download) {
    words.emplace_back("--isolated");
  }
  words.insert(words.end(), {"--progress", "ndjson"});
  return words;
}

JobChild::JobChild(EventLoop& loop, const JobFiles& files, std::uint64_t number, Listener listener)
    : loop_(loop), files_(files), number_(number), listener_(std::move(listener)) {}

int JobChild::start(const Tool& tool, const Request& request) {
  printsDocument_ = printsDocument(request.kind);
  base::FileDescriptor output(
      open(files_.output(number_).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
  if (!output || flock(output.get(), LOCK_EX | LOCK_NB) != 0) {
    return errno;
  }
  gate_ = fwjobs::Gate::make(files_.gate(number_));
  if (const int error = gate_ ? openOutput() : ENOSPC; error != 0) {
    return error;
  }
  base::ProgramStart program;
  program.apart().withNothingAt(STDIN_FILENO).with(output.get(), STDOUT_FILENO).withNothingFrom(3);
  const int error =
      program.run(commandFor(tool, request), environmentFor(files_.gate(number_), request.user), process_);
  if (error != 0) {
    return error;
  }
  ending_ = loop_.whenEnded(process_, [this](int status) {
    status_ = status;
    lookForEnd();
  });
  watch();
  return 0;
}

void JobChild::follow() {
  gate_ = fwjobs::Gate::open(files_.gate(number_));
  if (openOutput() == 0) {
    watch();
  }
  lookAgain_ = loop_.soon([this] { lookForEnd(); });
}

int JobChild::openOutput() {
  output_.reset(open(files_.output(number_).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  return output_ ? 0 : errno;
}

void JobChild::watch() {
  written_ = loop_.whenWritten(files_.output(number_), [this] { lookForEnd(); });
}

bool JobChild::cancel() {
  if (ended_ || hasResult_ || !gate_.cancel()) {
    return false;
  }
  // What was started by an earlier service finds out at the gate.
  if (process_ > 0 && !status_) {
    kill(process_, SIGTERM);
  }
  return true;
}

void JobChild::read() {
  char block[65536];
  ssize_t count = 0;
  while (output_ && (count = ::read(output_.get(), block, sizeof block)) > 0) {
    rest_.append(block, static_cast<std::size_t>(count));
    for (std::size_t end = 0; !printsDocument_ && (end = rest_.find('\n')) != std::string::npos;) {
      const std::string line = rest_.substr(0, end);
      rest_.erase(0, end + 1);
      takeLine(line);
    }
    if (rest_.size() > kLongestLine) {
      rest_.clear();
    }
  }
  forgetWhatWasRead();
}

void JobChild::takeLine(const std::string& line) {
  const std::size_t begin = line.find('{');
  if (begin != std::string::npos) {
    takeEvent(parsedObject(line.substr(begin)));
  }
}

// A module may print into it as well, whatever it likes.
void JobChild::takeEvent(const Json::Value& event) {
  if (hasResult_ || !event["event"].isString()) {
    return;
  }
  hasResult_ = event["event"].asString() == "result";
  listener_.event(event);
}

// A module that prints without an end does not fill the memory.
void JobChild::forgetWhatWasRead() {
  const off_t read = output_ ? lseek(output_.get(), 0, SEEK_CUR) : 0;
  struct stat status = {};
  if (read > kMostKept && fstat(output_.get(), &status) == 0 && status.st_blocks * 512 > kMostKept) {
    fallocate(output_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, read);
  }
}

// Whoever works on the job has the lock, the child's own child too.
bool JobChild::isAtWork() const {
  const base::FileDescriptor probe(open(files_.output(number_).c_str(), O_RDONLY | O_CLOEXEC));
  return probe && flock(probe.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

void JobChild::lookForEnd() {
  if (ended_) {
    return;
  }
  const bool wasAtWork = isAtWork();
  read();
  const bool isGone = status_ || process_ < 0;  // as far as this service can be told
  if (wasAtWork ? hasResult_ && status_ : hasResult_ || isGone) {
    end();
  } else if (isGone) {
    // Its own child goes on; or the last writer has closed the file and its lock is about to go.
    lookAgain_ = loop_.after(pause_, [this] { lookForEnd(); });
    pause_ = std::min(pause_ * 2, kLongestPause);
  }
}

void JobChild::end() {
  ended_ = true;
  if (printsDocument_ && !hasResult_) {
    Json::Value document = parsedObject(rest_);
    if (document.isMember("outcome")) {
      document["event"] = "result";
      takeEvent(document);
    }
  }
  written_ = Source();
  listener_.ended(status_);
}

}  // namespace updated
