// SPDX-License-Identifier: Apache-2.0
// The way of a request: from the facade's call to the module's doUpdate and back, with
// an empty module and an image of 16 bytes. Counters hold the nanoseconds of each part.
#include <benchmark/benchmark.h>

#include "watched-request.h"

namespace {

constexpr struct {
  const char* name;
  bench::Moment from;
  bench::Moment to;
} kParts[] = {
    {"checks_ns", bench::Called, bench::LockAsked},
    {"lock_ns", bench::LockAsked, bench::LockHeld},
    {"thread_ns", bench::LockHeld, bench::ThreadRuns},
    {"worker_ns", bench::ThreadRuns, bench::ModuleCalled},
    {"module_ns", bench::ModuleCalled, bench::ModuleAnswers},
    {"back_ns", bench::ModuleAnswers, bench::Returned},
};

double nanosecondsOf(bench::Moment from, bench::Moment to) {
  const auto& moments = bench::lastRequest();
  return std::chrono::duration<double, std::nano>(moments[to] - moments[from]).count();
}

void request(benchmark::State& state) {
  std::array<double, std::size(kParts)> sums{};
  for (auto _ : state) {
    if (bench::requestUpdate() != 0) {
      state.SkipWithError("the update failed");
    }
    for (std::size_t i = 0; i < sums.size(); ++i) {
      sums[i] += nanosecondsOf(kParts[i].from, kParts[i].to);
    }
  }
  for (std::size_t i = 0; i < sums.size(); ++i) {
    state.counters[kParts[i].name] = benchmark::Counter(sums[i], benchmark::Counter::kAvgIterations);
  }
}
BENCHMARK(request)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  bench::enterDeviceWithEmptyModule();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
