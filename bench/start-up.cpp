// SPDX-License-Identifier: Apache-2.0
// What start-up costs: scanning and binding modules with the library, and the bare
// dlopen and nine dlsym of the same files. Each measurement is made by a process of
// its own, so that every module is really loaded, and inside a device, where the
// modules are distinct files in memory.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "device-namespace.h"
#include "fw-update-symbol-manager.h"

namespace {
namespace fs = std::filesystem;

constexpr const char* kControls = "/prd/usr/fwupdate/controls";
constexpr const char* kEntryPoints[] = {"setContext",          "getEMPID",        "getActiveVersion",
                                        "checkVersion",        "doUpdate",        "allUpdateDone",
                                        "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};

// ---- In the measuring process -------------------------------------------------

void scanAndBind() {
  if (!FWUpdateSymbolManager::getInstance()->getIsReady(false)) {
    throw std::runtime_error("the modules cannot be scanned");
  }
}

std::vector<std::string> moduleFiles() {
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(kControls)) {
    files.push_back(entry.path());
  }
  return files;
}

void bindBare(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    void* const library = dlopen(file.c_str(), RTLD_NOW);
    if (library == nullptr) {
      throw std::runtime_error(dlerror());
    }
    for (const char* const name : kEntryPoints) {
      benchmark::DoNotOptimize(dlsym(library, name));
    }
  }
}

[[noreturn]] void measure(const std::string& work) {
  // The platform's first message and first look at the version are not binding.
  FWUpdateSymbolManager::getInstance()->getSWVersionString();
  const std::vector<std::string> files = moduleFiles();
  const auto start = std::chrono::steady_clock::now();
  if (work == "library") {
    scanAndBind();
  } else {
    bindBare(files);
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("%.9f\n", seconds.count());
  std::fflush(stdout);
  std::_Exit(0);  // without closing the modules one by one
}

// ---- In the program that starts it ----------------------------------------------

struct ClosePipe {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

double secondsInOwnProcess(const std::string& work) {
  static const std::string kProgram = fs::read_symlink("/proc/self/exe");
  const std::unique_ptr<FILE, ClosePipe> pipe(
      popen(("exec '" + kProgram + "' --measure " + work).c_str(), "r"));
  double seconds = 0;
  if (!pipe || std::fscanf(pipe.get(), "%lf", &seconds) != 1) {
    throw std::runtime_error("no time came from the process that measures");
  }
  return seconds;
}

void placeModules(const std::string& module, std::int64_t count) {
  static std::string present;
  const std::string wanted = module + std::to_string(count);
  if (wanted == present) {
    return;
  }
  for (const std::string& file : moduleFiles()) {
    fs::remove(file);
  }
  for (std::int64_t i = 0; i < count; ++i) {
    fs::copy_file(module, kControls + ("/libmodule" + std::to_string(i)) + ".so");
  }
  present = wanted;
}

void startUp(benchmark::State& state, const char* work, const char* module) {
  placeModules(module, state.range(0));
  for (auto _ : state) {
    state.SetIterationTime(secondsInOwnProcess(work));
  }
}

void withSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(3)->Unit(
      benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(startUp, library, "library", EMPTY_MODULE)->Apply(withSizes);
BENCHMARK_CAPTURE(startUp, bare, "bare", EMPTY_MODULE)->Apply(withSizes);
BENCHMARK_CAPTURE(startUp, libraryMinimal, "library", MINIMAL_MODULE)->Apply(withSizes);
BENCHMARK_CAPTURE(startUp, bareMinimal, "bare", MINIMAL_MODULE)->Apply(withSizes);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--measure") == 0) {
    measure(argv[2]);
  }
  sandbox::enterDevice({"", {BUILD_TREE}});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
