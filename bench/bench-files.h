// SPDX-License-Identifier: Apache-2.0
// What benchmarks of whole files share: a directory of their own, a file held in the
// page cache, a peer as a child process, and how they run. Failures throw.
#ifndef BENCH_FILES_H
#define BENCH_FILES_H

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

// A new directory in the directory that the environment variable names, or else in
// otherwise; removed with all that is in it.
class Directory {
 public:
  Directory(const char* variable, const std::string& otherwise);
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::string file(const std::string& name) const { return path + "/" + name; }

 private:
  std::string path;
};

std::vector<unsigned char> noise(std::size_t size);
void writeFile(const std::string& path, const std::vector<unsigned char>& bytes);

// Keeps a file in the page cache: read once, and locked there when the process may
// lock that much memory.
class CachedFile {
 public:
  explicit CachedFile(const std::string& path);
  ~CachedFile();
  CachedFile(const CachedFile&) = delete;
  CachedFile& operator=(const CachedFile&) = delete;

  bool isLocked() const { return locked; }

 private:
  void* address = nullptr;
  std::size_t size = 0;
  bool locked = false;
};

// Runs a program, without its output, and waits until it has succeeded.
void runProgram(const std::vector<std::string>& command);

// The size in MiB that FW_BENCH_MIB names, or else this.
std::size_t mebibytes(std::size_t otherwise);

// Runs the registered benchmarks, each nine times, in random order unless the command
// line says otherwise. The exit code of the program.
int runBenchmarks(int argc, char** argv);

}  // namespace bench

#endif
