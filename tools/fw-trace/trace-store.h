// The traces of a directory: which there are, whether their processes live, and
// their contents, also while they are being written.
#ifndef FW_TRACE_TRACE_STORE_H
#define FW_TRACE_TRACE_STORE_H

#include <cstdint>
#include <string>
#include <vector>

#include "trace-reader.h"

namespace tracetool {

struct TraceFile {
  std::string path;
  std::string problem;  // why it cannot be read; empty when it can
  bool alive = false;   // its process is running
  std::uint64_t bytes = 0;
  Trace trace;
};

// One file. Takes what was written up to now when its process is running.
TraceFile loadTrace(const std::string& path);

// Every trace file of the directory, by the time its process started. problem
// says why the directory cannot be read, else it is empty.
std::vector<TraceFile> loadTraces(const std::string& directory, std::string& problem);

}  // namespace tracetool

#endif
