// SPDX-License-Identifier: Apache-2.0
// What decrypting a USB package costs, beside the command line of OpenSSL and beside
// its parts measured alone.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench-files.h"
#include "file-handles.h"
#include "fw-update-cipher.h"
#include "usb-package.h"

namespace {

constexpr std::size_t kReadSize = 10240;  // as the library reads
constexpr std::size_t kIvSize = 16;
constexpr std::size_t kTrailerSize = 534;
constexpr std::size_t kBlockSize = 16;

using Bytes = std::vector<unsigned char>;

const Bytes& key() {
  static const Bytes kBytes(32, 0x4B);
  return kBytes;
}

const Bytes& iv() {
  static const Bytes kBytes(kIvSize, 0x56);
  return kBytes;
}

struct FreeBytes {
  void operator()(unsigned char* bytes) const { std::free(bytes); }
};
using Buffer = std::unique_ptr<unsigned char, FreeBytes>;

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

Context newContext(int encrypt) {
  Context context(EVP_CIPHER_CTX_new());
  EVP_CipherInit(context.get(), EVP_aes_256_cbc(), key().data(), iv().data(), encrypt);
  return context;
}

Bytes encrypted(const Bytes& plaintext) {
  const Context context = newContext(1);
  Bytes ciphertext(plaintext.size() + kBlockSize);
  int size = 0;
  int last = 0;
  EVP_CipherUpdate(context.get(), ciphertext.data(), &size, plaintext.data(),
                   static_cast<int>(plaintext.size()));
  EVP_CipherFinal(context.get(), ciphertext.data() + size, &last);
  ciphertext.resize(static_cast<std::size_t>(size + last));
  return ciphertext;
}

struct Package {
  Bytes plaintext;
  std::size_t count;       // bytes behind the IV
  std::string package;     // IV, ciphertext, trailer
  std::string ciphertext;  // the same ciphertext alone, for OpenSSL
  std::string opensslPlaintext;
};

Package makePackage(const bench::Directory& directory) {
  Package made{bench::noise(bench::mebibytes(256) << 20U), 0, directory.file("package"),
               directory.file("ciphertext"), directory.file("plaintext")};
  Bytes bytes = encrypted(made.plaintext);
  bench::writeFile(made.ciphertext, bytes);
  bytes.insert(bytes.begin(), iv().begin(), iv().end());
  bytes.resize(bytes.size() + kTrailerSize);
  bench::writeFile(made.package, bytes);
  made.count = bytes.size() - kIvSize;
  return made;
}

FILE* readBehindIv(OpenPackage& package, const std::string& path) {
  FILE* const file = package.isOpen() ? package.read() : nullptr;
  PackageIv skipped;
  if (file == nullptr || !readPackageIv(file, skipped)) {
    throw std::runtime_error(path + " cannot be read");
  }
  return file;
}

void setBytes(benchmark::State& state, const Package& package) {
  state.SetBytesProcessed(static_cast<std::int64_t>(package.plaintext.size()) * state.iterations());
}

// ---- The whole -------------------------------------------------------------------

void decrypt(benchmark::State& state, const Package& package) {
  for (auto _ : state) {
    int length = 0;
    Buffer buffer;
    {
      OpenPackage file(package.package);
      buffer.reset(aes_256_cbc_all(readBehindIv(file, package.package), key().data(), iv().data(), 0,
                                   static_cast<int>(package.count), length));
    }
    state.PauseTiming();
    if (!buffer || static_cast<std::size_t>(length) != package.plaintext.size() ||
        std::memcmp(buffer.get(), package.plaintext.data(), package.plaintext.size()) != 0) {
      state.SkipWithError("the plaintext is wrong");
    }
    buffer.reset();
    state.ResumeTiming();
  }
  setBytes(state, package);
}

std::string hexadecimal(const Bytes& bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned int>(byte));
    text += digits;
  }
  return text;
}

void decryptWithOpenssl(benchmark::State& state, const Package& package) {
  const std::vector<std::string> command{"openssl", "enc",
                                         "-d",      "-aes-256-cbc",
                                         "-K",      hexadecimal(key()),
                                         "-iv",     hexadecimal(iv()),
                                         "-in",     package.ciphertext,
                                         "-out",    package.opensslPlaintext};
  for (auto _ : state) {
    bench::runProgram(command);
    state.PauseTiming();
    if (std::filesystem::file_size(package.opensslPlaintext) != package.plaintext.size()) {
      state.SkipWithError("the plaintext is wrong");
    }
    std::filesystem::remove(package.opensslPlaintext);
    state.ResumeTiming();
  }
  setBytes(state, package);
}

// ---- The parts, each as the library does it ---------------------------------------

void readAlone(const Package& package) {
  OpenPackage opened(package.package);
  FILE* const file = readBehindIv(opened, package.package);
  Bytes input(kReadSize);
  while (std::fread(input.data(), 1, kReadSize, file) == kReadSize) {
    benchmark::DoNotOptimize(input.data());
  }
}

void cipherAlone(const Package& package) {
  const Context context = newContext(0);
  const Bytes input(kReadSize);
  Bytes output(kReadSize + kBlockSize);
  int produced = 0;
  for (std::size_t left = package.count - kTrailerSize; left > 0;) {
    const std::size_t size = std::min(left, kReadSize);
    EVP_CipherUpdate(context.get(), output.data(), &produced, input.data(), static_cast<int>(size));
    left -= size;
  }
}

// Memory that no page was touched of yet, in pages of either size.
class FreshMemory {
 public:
  FreshMemory(std::size_t bytes, bool largePages) : size_(bytes) {
    void* const memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();
    }
    begin_ = static_cast<unsigned char*>(memory);
    madvise(begin_, size_, largePages ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
  }
  ~FreshMemory() { munmap(begin_, size_); }
  FreshMemory(const FreshMemory&) = delete;
  FreshMemory& operator=(const FreshMemory&) = delete;

  void touchEachPage() {
    for (std::size_t at = 0; at < size_; at += 4096) {
      begin_[at] = 1;
    }
  }

 private:
  unsigned char* begin_ = nullptr;
  std::size_t size_;
};

void read(benchmark::State& state, const Package& package) {
  for (auto _ : state) {
    readAlone(package);
  }
  setBytes(state, package);
}

void cipher(benchmark::State& state, const Package& package) {
  for (auto _ : state) {
    cipherAlone(package);
  }
  setBytes(state, package);
}

void memory(benchmark::State& state, const Package& package, bool largePages) {
  for (auto _ : state) {
    std::optional<FreshMemory> output(std::in_place, package.count, largePages);
    output->touchEachPage();
    state.PauseTiming();
    output.reset();
    state.ResumeTiming();
  }
  setBytes(state, package);
}

void allParts(benchmark::State& state, const Package& package) {
  for (auto _ : state) {
    readAlone(package);
    cipherAlone(package);
    std::optional<FreshMemory> output(std::in_place, package.count, true);
    output->touchEachPage();
    state.PauseTiming();
    output.reset();
    state.ResumeTiming();
  }
  setBytes(state, package);
}

template <typename Function>
void onPackage(const char* name, const Function& function) {
  benchmark::RegisterBenchmark(name, function)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void registerAll(const Package& package) {
  using benchmark::State;
  onPackage("Package/Decrypt", [&](State& state) { decrypt(state, package); });
  onPackage("Package/OpensslDecrypt", [&](State& state) { decryptWithOpenssl(state, package); });
  onPackage("Package/Parts", [&](State& state) { allParts(state, package); });
  onPackage("Part/Read", [&](State& state) { read(state, package); });
  onPackage("Part/Cipher", [&](State& state) { cipher(state, package); });
  onPackage("Part/Memory", [&](State& state) { memory(state, package, true); });
  onPackage("Part/Memory/small-pages", [&](State& state) { memory(state, package, false); });
}

}  // namespace

int main(int argc, char** argv) try {
  const bench::Directory directory("FW_BENCH_TMPFS", "/dev/shm");
  const Package package = makePackage(directory);
  registerAll(package);
  return bench::runBenchmarks(argc, argv);
} catch (const std::exception& error) {
  std::fprintf(stderr, "bench-decryption: %s\n", error.what());
  return 1;
}
