// SPDX-License-Identifier: Apache-2.0
// What the checksum of an image costs: by the library and in each way that this
// processor has, beside the reading alone, and beside the SHA-256 of OpenSSL.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "bench-files.h"
#include "file-handles.h"
#include "fw-update-symbol.h"
#include "image-crc/ways.h"

namespace {

constexpr std::size_t kChunkSize = 32768;  // as the library reads

struct Image {
  std::string path;
  std::size_t size;
  std::uint32_t crc;
};

// Gives every chunk of the file to a function.
template <typename Function>
void readChunks(const std::string& path, const Function& function) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  alignas(64) unsigned char chunk[kChunkSize];
  for (ssize_t size = 0; (size = read(file.get(), chunk, sizeof(chunk))) > 0;) {
    function(chunk, static_cast<std::size_t>(size));
  }
}

std::uint32_t checksum(const std::string& path, const imagecrc::Way& way) {
  std::uint32_t crc = 0;
  readChunks(path, [&](const unsigned char* bytes, std::size_t size) { crc = way.extend(crc, bytes, size); });
  return crc;
}

void setBytes(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(static_cast<std::int64_t>(size) * state.iterations());
}

void readImage(benchmark::State& state, const Image& image) {
  for (auto _ : state) {
    readChunks(image.path, [](const unsigned char* bytes, std::size_t) { benchmark::DoNotOptimize(bytes); });
  }
  setBytes(state, image.size);
}

template <typename Checksum>
void checkImage(benchmark::State& state, const Image& image, const Checksum& checksumOf) {
  for (auto _ : state) {
    if (checksumOf(image.path) != image.crc) {
      state.SkipWithError("the checksum is wrong");
    }
  }
  setBytes(state, image.size);
}

void checkWithLibrary(benchmark::State& state, const Image& image) {
  checkImage(state, image,
             [](const std::string& path) { return FWUpdateSymbol("bench").getBinaryCRC32(path); });
}

void hashWithOpenssl(benchmark::State& state, const Image& image) {
  for (auto _ : state) {
    bench::runProgram({"openssl", "dgst", "-sha256", image.path});
  }
  setBytes(state, image.size);
}

void extendByChunk(benchmark::State& state, const imagecrc::Way& way) {
  alignas(64) static const std::vector<unsigned char> kChunk = bench::noise(kChunkSize);
  std::uint32_t crc = 0;
  for (auto _ : state) {
    crc = way.extend(crc, kChunk.data(), kChunk.size());
  }
  benchmark::DoNotOptimize(crc);
  setBytes(state, kChunk.size());
}

template <typename Function>
void onWholeFile(const std::string& name, const Function& function) {
  benchmark::RegisterBenchmark(name.c_str(), function)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

void registerAll(const Image& image) {
  onWholeFile("ImageFile/Read", [&](benchmark::State& state) { readImage(state, image); });
  onWholeFile("ImageFile/Checksum", [&](benchmark::State& state) { checkWithLibrary(state, image); });
  onWholeFile("ImageFile/OpensslSha256", [&](benchmark::State& state) { hashWithOpenssl(state, image); });
  for (const imagecrc::Way& way : imagecrc::kWays) {
    if (!way.isAvailable()) {
      continue;
    }
    onWholeFile(std::string("ImageFile/Checksum/") + way.name, [&](benchmark::State& state) {
      checkImage(state, image, [&](const std::string& path) { return checksum(path, way); });
    });
    benchmark::RegisterBenchmark((std::string("Chunk/") + way.name).c_str(),
                                 [&](benchmark::State& state) { extendByChunk(state, way); });
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const bench::Directory directory("FW_BENCH_DIRECTORY", "/tmp");
  Image image{directory.file("image"), bench::mebibytes(1024) << 20U, 0};
  {
    const std::vector<unsigned char> content = bench::noise(image.size);
    bench::writeFile(image.path, content);
    image.crc = imagecrc::extendByBoost(0, content.data(), content.size());
  }
  const bench::CachedFile cached(image.path);
  benchmark::AddCustomContext("image_locked_in_page_cache", cached.isLocked() ? "yes" : "no");
  benchmark::AddCustomContext("way_of_the_library", imagecrc::fastestWay().name);
  registerAll(image);
  return bench::runBenchmarks(argc, argv);
} catch (const std::exception& error) {
  std::fprintf(stderr, "bench-image-crc: %s\n", error.what());
  return 1;
}
