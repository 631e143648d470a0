// SPDX-License-Identifier: Apache-2.0
// fw-update at work on a job. It prints into a file that it holds a lock on as long as it runs:
// so it goes on when the service ends, and a service that starts again follows it from there.
// Owns the files' descriptors, not the process.
#ifndef FW_UPDATED_JOB_CHILD_H
#define FW_UPDATED_JOB_CHILD_H

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "event-loop.h"
#include "file-descriptor.h"
#include "job-files.h"
#include "job-gate.h"
#include "job.h"

namespace updated {

// How fw-update is called.
struct Tool {
  std::string program;
  std::string keyFile;  // of USB packages
};

std::vector<std::string> argumentsFor(const Tool& tool, const Request& request);
// For the same arguments: it only begins the job's entry in the history.
std::vector<std::string> environmentForEntry(const Request& request);
std::vector<std::string> commandFor(const Tool& tool, const Request& request);

class JobChild {
 public:
  struct Listener {
    std::function<void(const Json::Value& event)> event;  // the last one is the result, when there is one
    // Nothing comes after it. status: as waitpid gives it; none of a process that a service
    // before this one started.
    std::function<void(std::optional<int> status)> ended;
  };

  JobChild(EventLoop& loop, const JobFiles& files, std::uint64_t number, Listener listener);

  // 0 or an errno value: then nothing has begun.
  int start(const Tool& tool, const Request& request);
  // The one that works, or has worked, since before this service.
  void follow();

  // False when it has reached a module, or its end.
  bool cancel();

 private:
  int openOutput();
  void watch();
  void read();
  void takeLine(const std::string& line);
  void takeEvent(const Json::Value& event);
  void forgetWhatWasRead();
  bool isAtWork() const;
  void lookForEnd();
  void end();

  EventLoop& loop_;
  const JobFiles& files_;
  const std::uint64_t number_;
  const Listener listener_;
  bool printsDocument_ = false;  // and no events
  base::FileDescriptor output_;
  fwjobs::Gate gate_;
  Source written_;
  Source ending_;
  Source lookAgain_;
  std::chrono::milliseconds pause_{5};
  pid_t process_ = -1;
  std::optional<int> status_;
  std::string rest_;  // of the output: a line that has not ended
  bool hasResult_ = false;
  bool ended_ = false;
};

}  // namespace updated

#endif
