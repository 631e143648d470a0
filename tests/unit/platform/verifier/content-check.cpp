// SPDX-License-Identifier: Apache-2.0
// The verification library's check of what was read of a package, through its entry
// points, at the device's paths.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "device-environment.h"
#include "file-descriptor.h"
#include "package-verifier.h"
#include "public-keys.h"
#include "signed-package.h"
#include "thoroughness.h"

namespace fs = std::filesystem;

namespace {

constexpr char kPackage[] = "/opt/media/USBDriveA/tunerfw.bin";
constexpr std::size_t kTrailer = 534;

class ReadContent : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    library_ = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library_, nullptr) << dlerror();
    find(begin, "beginContentCheck");
    find(add, "addCheckedContent");
    find(end, "endContentCheck");
    find(release, "releaseContentCheck");
    writeFile(std::string(fwpackage::kKeyDirectory) + "/maker.pem", publicPem(key()));
  }
  void TearDown() override { dlclose(library_); }

  static const fwpack::SigningKey& key() { return testSigningKey("ed25519"); }
  static std::string package(std::size_t content = 96) {
    return signedFile(std::string(content, 'C'), key());
  }

  // The verdict on bytes that were read, in pieces of this size, while the file holds
  // something that may be else.
  bool takes(const std::string& file, const std::string& read, std::size_t piece = 10240,
             const std::string& path = kPackage) {
    writeFile(path, file);
    const base::FileDescriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return takesOpened(descriptor.get(), read, piece, path);
  }

  bool takesOpened(int descriptor, const std::string& read, std::size_t piece, const std::string& path) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < read.size(); at += piece) {
      pieces.push_back(read.substr(at, piece));
    }
    return takesOpened(descriptor, pieces, path);
  }

  bool takesPieces(const std::string& file, const std::vector<std::string>& pieces) {
    writeFile(kPackage, file);
    const base::FileDescriptor descriptor(open(kPackage, O_RDONLY | O_CLOEXEC));
    return takesOpened(descriptor.get(), pieces, kPackage);
  }

  bool takesOpened(int descriptor, const std::vector<std::string>& pieces, const std::string& path) {
    PackageContentCheck* const check = begin(path.c_str(), descriptor);
    if (check == nullptr) {
      return false;
    }
    for (const std::string& piece : pieces) {
      add(check, reinterpret_cast<const unsigned char*>(piece.data()), piece.size());
    }
    const bool taken = end(check) != 0;
    release(check);
    return taken;
  }

  decltype(&beginContentCheck) begin = nullptr;
  decltype(&addCheckedContent) add = nullptr;
  decltype(&endContentCheck) end = nullptr;
  decltype(&releaseContentCheck) release = nullptr;

 private:
  template <typename Function>
  void find(Function& entry, const char* name) {
    entry = reinterpret_cast<Function>(dlsym(library_, name));
    ASSERT_NE(entry, nullptr) << name;
  }

  void* library_ = nullptr;
};

std::string flipped(std::string bytes, std::size_t at) {
  bytes[at] = static_cast<char>(bytes[at] ^ 1);
  return bytes;
}

}  // namespace

TEST_F(ReadContent, IsTakenInPiecesOfAnySize) {
  const std::string whole = package(3000);

  for (const std::size_t piece : {1U, 7U, 16U, 533U, 534U, 535U, 2999U, 3000U, 3001U, 3534U, 9999U}) {
    EXPECT_TRUE(takes(whole, whole, piece)) << piece;
  }
}

TEST_F(ReadContent, IsRefusedWithAByteBetweenContentAndTrailerThatCameByItself) {
  const std::string whole = package();
  const std::string trailer = whole.substr(whole.size() - kTrailer);
  const std::string content = whole.substr(0, whole.size() - kTrailer);

  EXPECT_TRUE(takesPieces(whole, {content, trailer}));
  EXPECT_FALSE(takesPieces(whole, {content, "x", trailer}));
}

TEST_F(ReadContent, IsTakenOfEveryAlgorithmAndFormat) {
  for (const char* algorithm : {"rsa-3072", "rsa-4096"}) {
    writeFile(std::string(fwpackage::kKeyDirectory) + "/other.pem", publicPem(testSigningKey(algorithm)));
    const fwpackage::KeyId id = testSigningKey(algorithm).keyId();
    writeFile(std::string(fwpackage::kKeyDirectory) + "/format-1",
              fwpackage::toHex(id.data(), id.size()) + "\n");
    const std::string content(96, 'C');
    const std::string whole = algorithm == std::string("rsa-3072")
                                  ? signedFile(content, testSigningKey(algorithm))
                                  : oldSignedFile(content, testSigningKey(algorithm));

    EXPECT_TRUE(takes(whole, whole)) << algorithm;
    EXPECT_FALSE(takes(whole, flipped(whole, 3))) << algorithm;
  }
}

TEST_F(ReadContent, IsRefusedForEveryByteThatDiffersFromTheFile) {
  const std::string whole = package();

  for (std::size_t at = 0; at < whole.size(); at += thoroughness::kEveryNth) {
    EXPECT_FALSE(takes(whole, flipped(whole, at))) << at;
  }
}

TEST_F(ReadContent, IsJudgedByWhatWasReadAndNotByTheFile) {
  const std::string whole = package();

  EXPECT_TRUE(takes(flipped(whole, 20), whole)) << "nobody uses the file any more";
  EXPECT_FALSE(takes(flipped(whole, 20), flipped(whole, 20)));
}

TEST_F(ReadContent, IsRefusedWithATrailerThatTheFileDidNotHave) {
  const std::string whole = package();
  const std::string other = signedFile(std::string(96, 'C'), key(), statementsFor("wififw"));

  EXPECT_FALSE(takes(whole, other));
  EXPECT_FALSE(takes(other, whole));
}

TEST_F(ReadContent, IsRefusedWhenBytesAreMissingOrTooMany) {
  const std::string whole = package();

  for (std::size_t length = 0; length < whole.size(); length += thoroughness::kEveryNth) {
    EXPECT_FALSE(takes(whole, whole.substr(0, length))) << length;
  }
  EXPECT_FALSE(takes(whole, whole.substr(1)));
  EXPECT_FALSE(takes(whole, whole + '\0'));
  EXPECT_FALSE(takes(whole, whole + whole));
  EXPECT_FALSE(takes(whole, whole + whole.substr(whole.size() - kTrailer)));
}

TEST_F(ReadContent, IsRefusedForTheReasonsOfTheFile) {
  const std::string whole = package();
  const std::string unsignedFile(1000, 'x');
  EXPECT_FALSE(takes(unsignedFile, unsignedFile));
  EXPECT_FALSE(takes("short", "short"));
  EXPECT_FALSE(takes(whole, whole, 10240, "/opt/media/USBDriveA/wififw.bin"));

  const fwpackage::KeyId id = key().keyId();
  writeFile(std::string(fwpackage::kKeyDirectory) + "/revoked",
            fwpackage::toHex(id.data(), id.size()) + "\n");
  EXPECT_FALSE(takes(whole, whole)) << "a revoked key";
  fs::remove_all(fwpackage::kKeyDirectory);
  EXPECT_FALSE(takes(whole, whole)) << "no key";
}

TEST_F(ReadContent, IsRefusedOfWhatIsNoOpenFile) {
  const std::string whole = package();
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  const base::FileDescriptor fifo(open("/tmp/fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const base::FileDescriptor directory(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));

  EXPECT_FALSE(takesOpened(-1, whole, 10240, kPackage));
  EXPECT_FALSE(takesOpened(fifo.get(), whole, 10240, kPackage));
  EXPECT_FALSE(takesOpened(directory.get(), whole, 10240, kPackage));
  EXPECT_EQ(begin(nullptr, fifo.get()), nullptr);
}

TEST_F(ReadContent, LeavesTheDescriptorWhereItStands) {
  const std::string whole = package();
  writeFile(kPackage, whole);
  const base::FileDescriptor file(open(kPackage, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(lseek(file.get(), 16, SEEK_SET), 16);

  EXPECT_TRUE(takesOpened(file.get(), whole, 100, kPackage));

  EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), 16);
}

TEST_F(ReadContent, MayBeReleasedAtAnyTime) {
  const std::string whole = package();
  writeFile(kPackage, whole);
  const base::FileDescriptor file(open(kPackage, O_RDONLY | O_CLOEXEC));

  release(begin(kPackage, file.get()));
  PackageContentCheck* const half = begin(kPackage, file.get());
  add(half, reinterpret_cast<const unsigned char*>(whole.data()), 50);
  release(half);

  EXPECT_TRUE(takes(whole, whole)) << "they are apart from each other";
}

TEST_F(ReadContent, TakesNoMemoryByThePackagesSize) {
  const std::string whole = package(std::size_t{20} << 20);
  ASSERT_TRUE(takes(whole, whole)) << "what OpenSSL keeps is there";
  const base::FileDescriptor file(open(kPackage, O_RDONLY | O_CLOEXEC));
  PackageContentCheck* const check = begin(kPackage, file.get());
  const auto before = mallinfo2().uordblks;

  for (std::size_t at = 0; at < whole.size(); at += 4096) {
    add(check, reinterpret_cast<const unsigned char*>(whole.data()) + at,
        std::min<std::size_t>(4096, whole.size() - at));
  }

  EXPECT_LE(mallinfo2().uordblks, before + 65536);
  EXPECT_NE(end(check), 0);
  release(check);
}

TEST_F(ReadContent, LeavesTheCallersErrorQueueAlone) {
  const std::string whole = package();
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 77);

  EXPECT_TRUE(takes(whole, whole));
  EXPECT_FALSE(takes(whole, flipped(whole, 3)));

  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
  EXPECT_EQ(ERR_get_error(), 0U);
}
