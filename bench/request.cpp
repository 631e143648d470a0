// The way of a request: from the facade's call to the module's doUpdate and back, with
// an empty module and an image of 16 bytes. Counters hold the nanoseconds of each part.
#include <benchmark/benchmark.h>

#include "watched-request.h"

namespace {

constexpr struct {
  const char* name;
  bench::Moment from;
  bench::Moment to;
} Parts[] = {
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

void Request(benchmark::State& state) {
  std::array<double, std::size(Parts)> sums{};
  for (auto _ : state) {
    if (bench::requestUpdate() != 0)
      state.SkipWithError("the update failed");
    for (std::size_t i = 0; i < sums.size(); ++i)
      sums[i] += nanosecondsOf(Parts[i].from, Parts[i].to);
  }
  for (std::size_t i = 0; i < sums.size(); ++i)
    state.counters[Parts[i].name] = benchmark::Counter(sums[i], benchmark::Counter::kAvgIterations);
}
BENCHMARK(Request)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  bench::enterDeviceWithEmptyModule();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
