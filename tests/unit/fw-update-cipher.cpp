// SPDX-License-Identifier: Apache-2.0
// The encrypted package reader, held against a cipher of the test's own.
#include "fw-update-cipher.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "allocation-faults.h"
#include "library-test.h"
#include "usb-package.h"

using ::testing::IsEmpty;

namespace {

struct FreeBytes {
  void operator()(unsigned char* bytes) const { std::free(bytes); }
};
using Buffer = std::unique_ptr<unsigned char, FreeBytes>;

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

class PackageReader : public LibraryTest {
 protected:
  static Stream open(const std::string& content) {
    writeFile("/tmp/package", content);
    return Stream(std::fopen("/tmp/package", "rb"));
  }

  // Decrypts with the packages' key and IV and keeps the buffer.
  std::string decrypted(FILE* file, int count, const std::string& key = usb::key()) {
    int length = -1;
    buffer.reset(aes_256_cbc_all(file, usb::bytesOf(key), usb::bytesOf(usb::iv()), 0, count, length));
    if (!buffer) {
      return "none, length " + std::to_string(length);
    }
    return std::string(reinterpret_cast<const char*>(buffer.get()), static_cast<std::size_t>(length));
  }

  std::string decrypted(const std::string& content, int count) {
    return decrypted(open(content).get(), count);
  }

  // What must come of a file with this content: never more than count - 534 bytes of
  // it are fed.
  static std::string expected(const std::string& content, int count) {
    return usb::decrypt(content.substr(0, static_cast<std::size_t>(count) - usb::kTrailerSize));
  }

  Buffer buffer;
};

// Gives a content and then fails.
struct FailingFile {
  std::string content;
  std::size_t position = 0;
};

ssize_t readFailingFile(void* cookie, char* out, std::size_t size) {
  auto& file = *static_cast<FailingFile*>(cookie);
  if (file.position == file.content.size()) {
    errno = EIO;
    return -1;
  }
  const std::size_t n = std::min(size, file.content.size() - file.position);
  std::memcpy(out, file.content.data() + file.position, n);
  file.position += n;
  return static_cast<ssize_t>(n);
}

constexpr std::size_t kLargePage = 2 << 20;

bool kernelHasLargePages() {
  return std::filesystem::exists("/sys/kernel/mm/transparent_hugepage");
}

struct Mapping {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  bool largePages = false;  // asked for
};

// The memory mapping of this process that holds the address.
Mapping mappingOf(const unsigned char* address) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  std::ifstream file("/proc/self/smaps");
  Mapping mapping;
  for (std::string line; std::getline(file, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " ", &begin, &end) == 2) {
      mapping = {begin, end, false};
    } else if (line.rfind("VmFlags:", 0) == 0 && mapping.begin <= wanted && wanted < mapping.end) {
      mapping.largePages = line.find(" hg") != std::string::npos;
      return mapping;
    }
  }
  return {};
}

const std::string kNone = "none, length 0";

}  // namespace

TEST_F(PackageReader, DecryptsWhatLiesBetweenIvAndTrailer) {
  const std::string package = usb::package("2.0", "the firmware image");
  const Stream file = open(package);
  ASSERT_EQ(std::fseek(file.get(), 16, SEEK_SET), 0);

  const std::string plaintext = decrypted(file.get(), static_cast<int>(package.size() - 16));

  EXPECT_EQ(plaintext, "2.0" + std::string(61, '\0') + "the firmware image");
  EXPECT_EQ(buffer.get(), cipher_buf_all);
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(PackageReader, GivesEachOfSeveralThreadsItsOwnPlaintext) {
  const std::string plaintexts[] = {usb::noise(30000, 1), usb::noise(100, 2)};
  std::atomic<int> wrong{0};
  const auto decryptOften = [&wrong](const std::string& plaintext, const std::string& path) {
    writeFile(path, usb::encrypt(plaintext) + usb::noise(usb::kTrailerSize));
    const auto count = static_cast<int>(std::filesystem::file_size(path));
    for (int round = 0; round < 200; ++round) {
      const Stream file(std::fopen(path.c_str(), "rb"));
      int length = 0;
      const Buffer own(
          aes_256_cbc_all(file.get(), usb::bytesOf(usb::key()), usb::bytesOf(usb::iv()), 0, count, length));
      wrong += plaintext.compare(0, plaintext.size(), reinterpret_cast<const char*>(own.get()),
                                 static_cast<std::size_t>(length)) != 0;
    }
  };

  std::thread other([&] { decryptOften(plaintexts[1], "/tmp/other-package"); });
  decryptOften(plaintexts[0], "/tmp/package");
  other.join();

  EXPECT_EQ(wrong, 0);
}

TEST_F(PackageReader, FeedsSixteenBytesOfTheTrailerWhenItIsGivenTheWholeSize) {
  const std::string package = usb::package("2.0", usb::noise(100));
  const Stream file = open(package);
  ASSERT_EQ(std::fseek(file.get(), 16, SEEK_SET), 0);

  const std::string plaintext = decrypted(file.get(), static_cast<int>(package.size()));

  EXPECT_EQ(plaintext.substr(0, 64), "2.0" + std::string(61, '\0'));
  EXPECT_EQ(plaintext, usb::decrypt(package.substr(16, package.size() - 534)));
}

TEST_F(PackageReader, DecryptsAFileOfAnyLength) {
  for (std::size_t size = 534; size <= 700; ++size) {
    const std::string content = usb::noise(size);
    const int count = static_cast<int>(size);

    EXPECT_EQ(decrypted(content, count), expected(content, count)) << size;
  }
}

TEST_F(PackageReader, RemovesThePaddingOfEveryLength) {
  for (std::size_t size = 0; size <= 64; ++size) {
    const std::string plaintext = usb::noise(size, 7);
    const std::string content = usb::encrypt(plaintext) + usb::noise(534);

    EXPECT_EQ(decrypted(content, static_cast<int>(content.size())), plaintext) << size;
  }
}

TEST_F(PackageReader, EndsWithAFileThatIsShorterThanCounted) {
  const std::string ciphertext = usb::encrypt(usb::noise(200));
  for (std::size_t size = 0; size <= ciphertext.size(); ++size) {
    const std::string content = ciphertext.substr(0, size);

    EXPECT_EQ(decrypted(content, 10000), usb::decrypt(content)) << size;
  }
}

TEST_F(PackageReader, StopsAtTheCountInAFileThatHoldsMore) {
  const std::string content = usb::noise(50000);
  for (const int count : {534, 535, 549, 550, 551, 10240, 10773, 10774, 10775, 10790, 20480, 21014, 49999}) {
    EXPECT_EQ(decrypted(content, count), expected(content, count)) << count;
  }
}

TEST_F(PackageReader, DecryptsFilesAroundWholeReads) {
  for (const int reads : {1, 2, 3}) {
    for (const int beyond : {-16, -1, 0, 1, 15, 16, 17, 533, 534, 535, 550}) {
      const int count = reads * static_cast<int>(usb::kReadSize) + beyond;
      const std::string content = usb::noise(static_cast<std::size_t>(count));

      EXPECT_EQ(decrypted(content, count), expected(content, count)) << count;
    }
  }
}

TEST_F(PackageReader, DecryptsALargePackage) {
  const std::string image = usb::noise(3 * 1024 * 1024 + 5);
  const std::string package = usb::package("2.0", image);
  const Stream file = open(package);
  ASSERT_EQ(std::fseek(file.get(), 16, SEEK_SET), 0);

  const std::string plaintext = decrypted(file.get(), static_cast<int>(package.size() - 16));

  EXPECT_TRUE(plaintext == "2.0" + std::string(61, '\0') + image);
}

TEST_F(PackageReader, ReadsOnceMoreAfterAWholeLastRead) {
  const Stream file = open(usb::noise(2 * usb::kReadSize));

  decrypted(file.get(), 2 * static_cast<int>(usb::kReadSize));

  EXPECT_TRUE(std::feof(file.get())) << "only the extra, empty read finds the end";
}

TEST_F(PackageReader, ReadsToTheEndOfAFileThatHoldsMoreThanCounted) {
  const Stream file = open(usb::noise(25000));

  decrypted(file.get(), 600);

  EXPECT_EQ(std::ftell(file.get()), 25000);
  EXPECT_TRUE(std::feof(file.get()));
}

TEST_F(PackageReader, EndsWithAReadErrorAsWithAShortRead) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{15}, std::size_t{160}, usb::kReadSize - 1,
                                 usb::kReadSize, usb::kReadSize + 160}) {
    FailingFile failing{usb::noise(size)};
    const Stream file(fopencookie(&failing, "rb", {readFailingFile, nullptr, nullptr, nullptr}));

    EXPECT_EQ(decrypted(file.get(), 30000), usb::decrypt(failing.content)) << size;
    EXPECT_TRUE(std::ferror(file.get()));
  }
}

TEST_F(PackageReader, GivesNothingOfADirectory) {
  const Stream file(std::fopen("/tmp", "rb"));
  ASSERT_TRUE(file);

  EXPECT_EQ(decrypted(file.get(), 1000), "");

  EXPECT_TRUE(buffer);
}

TEST_F(PackageReader, DoesNotNoticeAWrongKey) {
  const std::string ciphertext = usb::encrypt("2.0" + std::string(300, 'i'));
  const std::string wrongKey = usb::noise(32, 77);
  const Stream file = open(ciphertext + usb::noise(534));

  const std::string plaintext = decrypted(file.get(), static_cast<int>(ciphertext.size() + 534), wrongKey);

  EXPECT_EQ(plaintext, usb::decrypt(ciphertext, wrongKey));
  EXPECT_GE(plaintext.size(), ciphertext.size() - 16);
}

TEST_F(PackageReader, EncryptsOnRequest) {
  const std::string plaintext = usb::noise(usb::kReadSize + 100);
  const Stream file = open(plaintext + usb::noise(534));
  int length = 0;

  buffer.reset(aes_256_cbc_all(file.get(), usb::bytesOf(usb::key()), usb::bytesOf(usb::iv()), 1,
                               static_cast<int>(plaintext.size() + 534), length));

  ASSERT_TRUE(buffer);
  EXPECT_TRUE(std::string(reinterpret_cast<const char*>(buffer.get()), static_cast<std::size_t>(length)) ==
              usb::encrypt(plaintext));
}

// ---- The buffer ---------------------------------------------------------------------

TEST_F(PackageReader, AllocatesTheCountedBytesFilledWithZeros) {
  // Dirty memory of this size, to be had again.
  unsigned char* const dirty = static_cast<unsigned char*>(std::malloc(1000));
  std::memset(dirty, 0xAA, 1000);
  std::free(dirty);

  const std::string plaintext = decrypted(usb::encrypt("short") + usb::noise(984), 1000);

  ASSERT_TRUE(buffer);
  EXPECT_GE(malloc_usable_size(buffer.get()), 1000U);
  EXPECT_LT(malloc_usable_size(buffer.get()), 1100U);
  unsigned char* const unused = cipher_buf_all + 466 + 16;
  EXPECT_TRUE(std::all_of(unused, cipher_buf_all + 1000, [](unsigned char byte) { return byte == 0; }));
}

TEST_F(PackageReader, AsksForLargePagesInsideALargeBuffer) {
  if (!kernelHasLargePages()) {
    GTEST_SKIP() << "the kernel has no large pages";
  }
  constexpr std::size_t kSize = 16 << 20;

  decrypted(usb::encrypt("short") + usb::noise(534), kSize);

  const Mapping inside = mappingOf(buffer.get() + kSize / 2);
  EXPECT_TRUE(inside.largePages);
  EXPECT_GE(inside.end - inside.begin, kSize - 2 * kLargePage) << "all but the ends";
  EXPECT_GE(inside.begin, reinterpret_cast<std::uintptr_t>(buffer.get()));
  EXPECT_LE(inside.end, reinterpret_cast<std::uintptr_t>(buffer.get()) + kSize);
}

TEST_F(PackageReader, AsksForNoLargePagesInABufferThatHoldsNone) {
  decrypted(usb::encrypt("short") + usb::noise(534), kLargePage - 1);

  EXPECT_FALSE(mappingOf(buffer.get() + kLargePage / 2).largePages);
}

TEST_F(PackageReader, LeavesTheEarlierBufferToItsOwner) {
  decrypted(usb::encrypt("first") + usb::noise(534), 550);
  const Buffer first = std::move(buffer);

  decrypted(usb::encrypt("other") + usb::noise(534), 550);

  EXPECT_NE(first.get(), cipher_buf_all);
  EXPECT_EQ(std::memcmp(first.get(), "first", 5), 0);
  EXPECT_EQ(std::memcmp(cipher_buf_all, "other", 5), 0);
}

TEST_F(PackageReader, GivesAnEmptyResultWhenNothingLiesBeforeTheTrailer) {
  EXPECT_EQ(decrypted(usb::noise(534), 534), "");

  EXPECT_TRUE(buffer);
  EXPECT_EQ(buffer.get(), cipher_buf_all);
}

TEST_F(PackageReader, StartsWithoutABuffer) {
  EXPECT_EQ(cipher_buf_all, nullptr);
}

// ---- Refusals -----------------------------------------------------------------------

TEST_F(PackageReader, RefusesACountBelowTheTrailer) {
  ASSERT_EQ(decrypted(usb::encrypt("kept") + usb::noise(534), 550), "kept");
  const Buffer kept = std::move(buffer);
  const Stream file = open(usb::noise(1000));

  for (const int count : {533, 532, 16, 1, 0, -1, -534, INT_MIN}) {
    EXPECT_EQ(decrypted(file.get(), count), kNone) << count;
    EXPECT_EQ(cipher_buf_all, kept.get()) << count;
  }
  EXPECT_EQ(std::ftell(file.get()), 0) << "nothing is read";
}

class FailedAllocation : public PackageReader {
 protected:
  void SetUp() override {
    PackageReader::SetUp();
    ASSERT_EQ(decrypted(usb::encrypt("before") + usb::noise(534), 550), "before");
    before = std::move(buffer);
    faults::cipherContextsMade = 0;
    faults::cipherContextsFreed = 0;
  }
  void TearDown() override {
    faults::failingMallocSize = 0;
    faults::failingCallocSize = 0;
    faults::failCipherContexts = false;
  }

  Buffer before;
};

TEST_F(FailedAllocation, OfTheReadBufferGivesNothing) {
  if (!faults::canFailAllocations()) {
    GTEST_SKIP() << "valgrind allocates";
  }
  const Stream file = open(usb::noise(1000));
  faults::failingMallocSize = usb::kReadSize;

  EXPECT_EQ(decrypted(file.get(), 1000), kNone);

  EXPECT_EQ(cipher_buf_all, nullptr);
  EXPECT_EQ(faults::cipherContextsMade, 0) << "the read buffer comes first";
}

TEST_F(FailedAllocation, OfTheOutputBufferGivesNothingAndKeepsTheContext) {
  if (!faults::canFailAllocations()) {
    GTEST_SKIP() << "valgrind allocates";
  }
  const Stream file = open(usb::noise(1234));
  faults::failingCallocSize = 1234;

  EXPECT_EQ(decrypted(file.get(), 1234), kNone);

  EXPECT_EQ(cipher_buf_all, nullptr);
  EXPECT_EQ(faults::cipherContextsMade, 1);
  EXPECT_EQ(faults::cipherContextsFreed, 0) << "kept on purpose";
  EXPECT_EQ(std::ftell(file.get()), 0) << "nothing is read";
}

TEST_F(FailedAllocation, OfTheLargestOutputBufferGivesNothing) {
  if (!faults::canFailAllocations()) {
    GTEST_SKIP() << "valgrind allocates";
  }
  const Stream file = open("");
  faults::failingCallocSize = INT_MAX;

  EXPECT_EQ(decrypted(file.get(), INT_MAX), kNone);

  EXPECT_EQ(cipher_buf_all, nullptr);
}

TEST_F(FailedAllocation, OfTheContextGivesNothing) {
  const Stream file = open(usb::noise(1000));
  faults::failCipherContexts = true;

  EXPECT_EQ(decrypted(file.get(), 1000), kNone);

  EXPECT_EQ(cipher_buf_all, nullptr);
}

TEST_F(FailedAllocation, IsForgottenByTheNextCall) {
  faults::failCipherContexts = true;
  EXPECT_EQ(decrypted(usb::noise(1000), 1000), kNone);
  faults::failCipherContexts = false;
  const std::string content = usb::encrypt("again") + usb::noise(534);
  faults::cipherContextsMade = 0;
  faults::cipherContextsFreed = 0;

  EXPECT_EQ(decrypted(content, 550), "again");

  EXPECT_EQ(cipher_buf_all, buffer.get());
  EXPECT_EQ(faults::cipherContextsMade, 1);
  EXPECT_EQ(faults::cipherContextsFreed, 1);
}
