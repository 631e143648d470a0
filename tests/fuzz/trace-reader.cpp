// Fuzz target: everything that fw-trace does with a file's bytes. Built with
// -fsanitize=fuzzer; without, as a test, it runs over the files it is given.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "export-json.h"
#include "export-perfetto.h"
#include "timeline.h"
#include "trace-reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto result = tracetool::readTrace({reinterpret_cast<const char*>(data), size});
  std::vector<tracetool::TraceFile> files(1);
  files[0].problem = result.problem;
  files[0].trace = std::move(result.trace);
  const auto timeline = tracetool::timelineOf(files);
  tracetool::exportJson(timeline);
  tracetool::exportPerfetto(timeline);
  return 0;
}
