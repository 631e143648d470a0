// SPDX-License-Identifier: Apache-2.0
// The traces of a directory: which there are, whether their processes live, and
// their contents, also while they are being written.
#ifndef FW_TRACE_TRACE_STORE_H
#define FW_TRACE_TRACE_STORE_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "file-descriptor.h"
#include "trace-reader.h"

namespace tracetool {

// A file with the length that it has now; it may grow.
class BytesOfFile : public TraceBytes {
 public:
  explicit BytesOfFile(const std::string& path);

  // Why it cannot be read; empty when it can.
  const std::string& problem() const { return problem_; }
  bool isOfLiveProcess() const;
  std::uint64_t inode() const { return status_.st_ino; }

  std::uint64_t size() const override { return static_cast<std::uint64_t>(status_.st_size); }
  std::size_t readAt(std::uint64_t offset, char* to, std::size_t wanted) const override;

 private:
  base::FileDescriptor fd_;
  struct stat status_;
  std::string problem_;
};

struct TraceFile {
  std::string path;
  std::string problem;  // why it cannot be read; empty when it can
  bool alive = false;   // its process is running
  std::uint64_t bytes = 0;
  std::uint64_t inode = 0;
  Trace trace;
};

// One file without its records.
TraceFile openTrace(const std::string& path);

// One file whole. Takes what was written up to now when its process is running.
TraceFile loadTrace(const std::string& path);

// In the order that their processes started.
bool startsEarlier(const TraceFile& a, const TraceFile& b);

// A trace file by its name; another one may take the name later.
struct FoundTrace {
  std::string path;
  std::uint64_t inode;
};

// Those of the directory. problem says why it cannot be read, else it is empty.
std::vector<FoundTrace> tracesIn(const std::string& directory, std::string& problem);

// All of them, by the time their processes started, without their records.
std::vector<TraceFile> openTraces(const std::string& directory, std::string& problem);

// The records of traces that were opened, by the time their processes started. Those
// that are too much for one time, the oldest, get a problem instead.
void loadRecords(std::vector<TraceFile>& files);

// Both.
std::vector<TraceFile> loadTraces(const std::string& directory, std::string& problem);

}  // namespace tracetool

#endif
