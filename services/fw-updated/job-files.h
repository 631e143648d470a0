// SPDX-License-Identifier: Apache-2.0
// What is kept of jobs beside the memory of the service, so that a service that starts again
// finds them: the request, what fw-update says of it, and its end. In a directory that a restart
// of the set empties. Owns no open file.
#ifndef FW_UPDATED_JOB_FILES_H
#define FW_UPDATED_JOB_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "job.h"

namespace updated {

class JobFiles {
 public:
  // Makes the directory, for this user alone. Throws std::system_error.
  explicit JobFiles(std::string directory = "/run/fw-updated");

  // False when there is no room for it. A job that is kept already has room for its end, but for
  // a very long one.
  bool keep(const Job& job) const;
  void remove(std::uint64_t number) const;
  // By their numbers. One that is not done stands as it was asked for.
  std::vector<Job> load() const;

  // Of the program at work: what it prints, and where it and Cancel() meet.
  std::string output(std::uint64_t number) const { return pathOf(number, ".out"); }
  std::string gate(std::uint64_t number) const { return pathOf(number, ".gate"); }
  bool hasBegun(std::uint64_t number) const;
  void removeWork(std::uint64_t number) const;

 private:
  std::string pathOf(std::uint64_t number, const char* suffix) const;

  const std::string directory_;
};

}  // namespace updated

#endif
