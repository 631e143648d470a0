// SPDX-License-Identifier: Apache-2.0
// What it costs to read traces: how many bytes of them fw-trace sums up and shows in a
// second, whether that keeps its pace when there are more, what memory it takes, and what
// it costs to follow traces to which nothing is added. They are made by the storage itself.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "diagnostic-log.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMebibyte = 1024 * 1024;
constexpr int kMebibytesPerProcess = 16;

diagnostics::CallSite site("/src/bench.cpp", "update", 1, MESSAGE_PREFIX "%s returned %d");

// One process's trace, as large as one becomes.
void writeTrace(const std::string& directory) {
  if (const pid_t child = fork(); child != 0) {
    waitpid(child, nullptr, 0);
    return;
  }
  setenv("FW_UPDATE_TRACE", directory.c_str(), 1);
  setenv("FW_UPDATE_TRACE_THREAD_KIB", std::to_string(kMebibytesPerProcess * 1024).c_str(), 1);
  setenv("FW_UPDATE_TRACE_TOTAL_MIB", "4096", 1);
  for (int number = 0; number < kMebibytesPerProcess * 20000; ++number) {
    const std::array<diagnostics::TraceArgument, 2> traced{diagnostics::traceArgument("a text of 20 bytes.."),
                                                           diagnostics::traceArgument(number)};
    diagnostics::writeTraceRecord(site, traced.data(), traced.size());
  }
  _exit(0);
}

// The traces of that many mebibytes; they stay for the next benchmark of the size.
std::string traces(std::int64_t mebibytes) {
  const char* const work = std::getenv("FW_BENCH_DIRECTORY");
  std::string directory =
      std::string(work != nullptr ? work : "/tmp") + "/traces-" + std::to_string(mebibytes);
  if (!fs::exists(directory)) {
    fs::create_directory(directory);
    for (std::int64_t done = 0; done < mebibytes; done += kMebibytesPerProcess) {
      writeTrace(directory);
    }
  }
  return directory;
}

std::uint64_t bytesIn(const std::string& directory) {
  std::uint64_t bytes = 0;
  for (const auto& entry : fs::directory_iterator(directory)) {
    bytes += entry.file_size();
  }
  return bytes;
}

pid_t start(const char* command, const std::string& directory) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    execl(FW_TRACE, FW_TRACE, command, "--directory", directory.c_str(), nullptr);
    _exit(127);
  }
  return child;
}

void read(benchmark::State& state, const char* command) {
  const std::string directory = traces(state.range(0));
  rusage usage = {};
  for (auto _ : state) {
    int status = 0;
    wait4(start(command, directory), &status, 0, &usage);
    if (status != 0) {
      state.SkipWithError("fw-trace failed");
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytesIn(directory)) *
                          static_cast<std::int64_t>(state.iterations()));
  state.counters["memory_mib"] = static_cast<double>(usage.ru_maxrss) / 1024;
}

void summary(benchmark::State& state) {
  read(state, "summary");
}
BENCHMARK(summary)->Arg(64)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void show(benchmark::State& state) {
  read(state, "show");
}
BENCHMARK(show)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

double processorSeconds(pid_t process) {
  std::string path = "/proc/" + std::to_string(process) + "/schedstat";
  std::FILE* const file = std::fopen(path.c_str(), "re");
  long long nanoseconds = 0;
  if (file == nullptr || std::fscanf(file, "%lld", &nanoseconds) != 1) {
    nanoseconds = 0;
  }
  if (file != nullptr) {
    std::fclose(file);
  }
  return static_cast<double>(nanoseconds) / 1e9;
}

// Processor time of five seconds in which nothing comes.
void followIdle(benchmark::State& state) {
  const std::string directory = traces(state.range(0));
  const pid_t follower = start("follow", directory);
  // It has shown everything when it takes less than half of a processor's time.
  for (double before = -1, now = 0; now - before > 0.25; now = processorSeconds(follower)) {
    before = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  for (auto _ : state) {
    const double before = processorSeconds(follower);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    state.SetIterationTime(processorSeconds(follower) - before);
  }
  kill(follower, SIGTERM);
  waitpid(follower, nullptr, 0);
}
// Once: before it is idle it shows everything, which takes far longer.
BENCHMARK(followIdle)
    ->Arg(1024)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(1);

}  // namespace

BENCHMARK_MAIN();
