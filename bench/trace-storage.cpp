// SPDX-License-Identifier: Apache-2.0
// What a message costs: one with an int and a text of 20 bytes, written as a trace
// record and, in the same run, formatted and written to a file as a log line.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "diagnostic-log.h"

namespace {

constexpr const char* kText = "a text of 20 bytes..";
// In memory, like /run: on a disk a thread waits now and then for its pages.
constexpr const char* kPlace = "/dev/shm/fw-bench-trace";

diagnostics::CallSite site("/src/bench.cpp", "bench", 1, MESSAGE_PREFIX "%s returned %d");

void traceRecord(int number) {
  const std::array<diagnostics::TraceArgument, 2> traced{diagnostics::traceArgument(kText),
                                                         diagnostics::traceArgument(number)};
  diagnostics::writeTraceRecord(site, traced.data(), traced.size());
}

void traceRecord(benchmark::State& state) {
  int number = 0;
  for (auto _ : state) {
    traceRecord(++number);
  }
}
BENCHMARK(traceRecord)->Threads(1)->Threads(2)->UseRealTime();

// The part of it that asking for the time takes.
void clock(benchmark::State& state) {
  for (auto _ : state) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(clock)->UseRealTime();

void switchedOff(benchmark::State& state) {
  TraceStorage::enabled = 0;
  int number = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++number);
    if (TraceStorage::enabled != 0) {
      traceRecord(number);
    }
  }
  TraceStorage::enabled = 1;
}
BENCHMARK(switchedOff)->UseRealTime();

void formatAndWrite(benchmark::State& state) {
  const std::string path = std::string(kPlace) + "/log-" + std::to_string(state.thread_index());
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  int number = 0;
  for (auto _ : state) {
    char line[256];
    const int length = std::snprintf(line, sizeof line, "%s: %s(%d) > %s returned %d\n", "bench.cpp", "bench",
                                     1, kText, ++number);
    if (write(fd, line, static_cast<std::size_t>(length)) != length) {
      state.SkipWithError("the line cannot be written");
    }
  }
  close(fd);
}
BENCHMARK(formatAndWrite)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::create_directory(kPlace);
  setenv("FW_UPDATE_TRACE", kPlace, 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::filesystem::remove_all(kPlace);
  return 0;
}
