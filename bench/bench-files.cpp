// SPDX-License-Identifier: Apache-2.0
#include "bench-files.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>

extern char** environ;

namespace bench {
namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string environmentOr(const char* variable, const std::string& otherwise) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

}  // namespace

Directory::Directory(const char* variable, const std::string& otherwise)
    : path(environmentOr(variable, otherwise) + "/fw-bench-XXXXXX") {
  if (mkdtemp(path.data()) == nullptr) {
    fail(path);
  }
}

Directory::~Directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

std::vector<unsigned char> noise(std::size_t size) {
  std::minstd_rand random(1);
  std::vector<unsigned char> bytes(size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random() >> 8U); });
  return bytes;
}

void writeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) {
    fail(path);
  }
}

CachedFile::CachedFile(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (descriptor < 0 || fstat(descriptor, &status) != 0) {
    fail(path);
  }
  fsync(descriptor);  // writing back would come between
  size = static_cast<std::size_t>(status.st_size);
  address = mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_POPULATE, descriptor, 0);
  close(descriptor);
  if (address == MAP_FAILED) {
    fail(path);
  }
  locked = mlock(address, size) == 0;
}

CachedFile::~CachedFile() {
  munmap(address, size);
}

void runProgram(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int error = posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (error != 0 || waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error(command[0] + " failed");
  }
}

std::size_t mebibytes(std::size_t otherwise) {
  return std::stoul(environmentOr("FW_BENCH_MIB", std::to_string(otherwise)));
}

int runBenchmarks(int argc, char** argv) {
  std::string program = argv[0];
  std::string repetitions = "--benchmark_repetitions=9";
  std::string order = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> arguments{program.data(), repetitions.data(), order.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
