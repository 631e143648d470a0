// SPDX-License-Identifier: Apache-2.0
// Tells how a job of the update service goes, as the command would that does the same by itself:
// from what the job tells, and from the clock in between. One per job; used by one thread.
#ifndef FW_UPDATE_TOOL_JOB_TELLING_H
#define FW_UPDATE_TOOL_JOB_TELLING_H

#include <json/value.h>

#include <memory>
#include <string>

#include "command-line.h"
#include "service/service-client.h"

namespace tool {

class JobTelling {
 public:
  virtual ~JobTelling() = default;
  JobTelling() = default;
  JobTelling(const JobTelling&) = delete;
  JobTelling& operator=(const JobTelling&) = delete;

  // In the order in which they happened.
  virtual void take(const Json::Value&) {}
  // Now and then; with the newest that is known of the job.
  virtual void tick(const JobState&) {}
  // Leaves the terminal as it was.
  virtual void finish() {}
};

// For the one who asked for the job, and takes all that it tells.
std::unique_ptr<JobTelling> makeJobTelling(const Options& options, const std::string& kind);
// One line of what a job tells. What is no event, or has values that events do not have, is left
// out: a module may print into it.
void takeLine(JobTelling& telling, const std::string& line);
// For one who comes later.
std::unique_ptr<JobTelling> makeWatchTelling(const Options& options);

}  // namespace tool

#endif
