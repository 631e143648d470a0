// SPDX-License-Identifier: Apache-2.0
// The verification library as the update library uses it: loaded, asked through its
// one entry point, at the device's paths.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string>

#include "device-environment.h"
#include "public-keys.h"
#include "signed-package.h"
#include "temporary-mount.h"
#include "thoroughness.h"

namespace fs = std::filesystem;

namespace {

constexpr char kPackage[] = "/opt/media/USBDriveA/tunerfw.bin";
constexpr char kKey[] = "/usr/share/fw-update/keys/maker.pem";
constexpr char kOldFormatList[] = "/usr/share/fw-update/keys/format-1";
constexpr char kRevokedList[] = "/usr/share/fw-update/keys/revoked";
constexpr char kMinimumVersion[] = "/var/lib/fw-update/minimum-versions/tunerfw";
constexpr char kContent[] = "IV and ciphertext";
constexpr std::size_t kTrailer = 534;

// A read of the byte at this offset fails.
std::atomic<std::int64_t> failingAt{INT64_MAX};
std::atomic<std::int64_t> bytesRead{0};
// One from this offset throws.
std::atomic<std::int64_t> throwingAt{-1};
// The first one from this offset is interrupted by a signal.
std::atomic<std::int64_t> interruptedAt{-1};
// The file ends here by now, whatever was said of its size.
std::atomic<std::int64_t> endingAt{INT64_MAX};

}  // namespace

// Takes the place of the C library's for the verification library: a drive that is
// pulled out while it is read.
extern "C" __attribute__((visibility("default"))) ssize_t pread64(int file, void* buffer, size_t size,
                                                                  off64_t offset) {
  using Read = ssize_t (*)(int, void*, size_t, off64_t);
  static const auto kReal = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "pread64"));
  if (offset <= failingAt && failingAt - offset < static_cast<std::int64_t>(size)) {
    errno = EIO;
    return -1;
  }
  if (offset == throwingAt) {
    throw std::bad_alloc();
  }
  if (offset == interruptedAt) {
    interruptedAt = -1;
    errno = EINTR;
    return -1;
  }
  if (offset + static_cast<std::int64_t>(size) > endingAt) {
    size = static_cast<size_t>(std::max<std::int64_t>(endingAt - offset, 0));
  }
  const ssize_t got = kReal(file, buffer, size, offset);
  bytesRead += got > 0 ? got : 0;
  return got;
}

namespace {

class Verifier : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    failingAt = INT64_MAX;
    throwingAt = -1;
    interruptedAt = -1;
    endingAt = INT64_MAX;
    library_ = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library_, nullptr) << dlerror();
    verifyFile_ = reinterpret_cast<int (*)(int, const char*, const char*)>(dlsym(library_, "verifyFile"));
    ASSERT_NE(verifyFile_, nullptr);
  }
  void TearDown() override { dlclose(library_); }

  bool accepts(const char* path = kPackage) const { return verifyFile_(0, path, "UserCaller") != 0; }
  bool acceptsContent(const std::string& content) const {
    writeFile(kPackage, content);
    return accepts();
  }
  static const fwpack::SigningKey& installKey(const std::string& algorithm = "ed25519") {
    const fwpack::SigningKey& key = testSigningKey(algorithm);
    writeFile(kKey, publicPem(key));
    return key;
  }
  // Lets this key sign packages of the old format.
  static void allowOldFormat(const fwpack::SigningKey& key) {
    const fwpackage::KeyId id = key.keyId();
    writeFile(kOldFormatList, fwpackage::toHex(id.data(), id.size()) + "\n");
  }
  static std::string smallPackage(const fwpack::SigningKey& key) {
    return signedFile(std::string(16, 'I') + std::string(80, 'C'), key);
  }

 private:
  void* library_ = nullptr;
  int (*verifyFile_)(int, const char*, const char*) = nullptr;
};

// The set's description, for as long as what it returns lives.
TemporaryMount setOfModel(const std::string& model) {
  TemporaryMount etc = TemporaryMount::memory("/etc");
  DeviceTest::writeFile("/etc/os-release", "ID=" + model + "\nBUILD_ID=1\n");
  return etc;
}

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::size_t openDescriptors() {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// The packages of these two were made with openssl alone, as docs/formats/usb-package.md
// says.
TEST_F(Verifier, AcceptsTheBytesThatTheFormatsDocumentDescribes) {
  const TemporaryMount etc = setOfModel("set-7");
  writeFile(kKey,
            "-----BEGIN PUBLIC KEY-----\n"
            "MCowBQYDK2VwAyEA8pl5LabkpZHndkwbmU2uVB/kDSwYdfccfYJzS3VmzeM=\n"
            "-----END PUBLIC KEY-----\n");
  const std::string package =
      "This stands for IV and ciphertext." + fromHex("46575349474e45440202869c80197aee52d340000100") +
      fromHex("0774756e65726677057365742d3706322e31302e3005322e392e31") + std::string(421, '\0') +
      fromHex(
          "aee5994846a0df34e6569b1ec2627a87fc0709412a8cc5c0410e38ac949edb6f"
          "6490e406f95644b7869503da3e9f5d23df266d6f2685739ed81e7bca4c13be07");

  EXPECT_TRUE(acceptsContent(package));
}

TEST_F(Verifier, AcceptsTheBytesOfTheOldFormatFromAKeyThatMaySignIt) {
  writeFile(kOldFormatList, "58276ee477dd30ca\n");
  writeFile(kKey,
            "-----BEGIN PUBLIC KEY-----\n"
            "MCowBQYDK2VwAyEADVG3iTbbmwXERY+XXRDGPjZZrqxEpgWdFTA78TD4ZAU=\n"
            "-----END PUBLIC KEY-----\n");
  const std::string package = "This stands for IV and ciphertext." +
                              fromHex("46575349474e4544010258276ee477dd30ca40000000") +
                              fromHex(
                                  "d6b99fe9b5083c63c09b7c494bcb0108f8edfedc568c196b1f4523f292e554e0"
                                  "4817430efe6b9ee08389c2a5ae327b65918e465aa175307595ed60f1aed03901") +
                              std::string(448, '\0');

  EXPECT_TRUE(acceptsContent(package));
}

TEST_F(Verifier, AcceptsAnEd25519Signature) {
  EXPECT_TRUE(acceptsContent(smallPackage(installKey())));
}

TEST_F(Verifier, AcceptsAnRsaSignatureAndRefusesItsAlteredBytes) {
  const std::string package = smallPackage(installKey("rsa-3072"));
  ASSERT_TRUE(acceptsContent(package));

  for (std::size_t at = 0; at < package.size(); at += 7) {
    std::string altered = package;
    altered[at] = static_cast<char>(altered[at] ^ 0x20);
    EXPECT_FALSE(acceptsContent(altered)) << at;
  }
}

TEST_F(Verifier, AcceptsAnOldRsaSignatureAndRefusesItsAlteredBytes) {
  const fwpack::SigningKey& key = installKey("rsa-4096");
  allowOldFormat(key);
  const std::string package = oldSignedFile(kContent, key);
  ASSERT_TRUE(acceptsContent(package));

  for (std::size_t at = 0; at < package.size(); at += 7) {
    std::string altered = package;
    altered[at] = static_cast<char>(altered[at] ^ 0x20);
    EXPECT_FALSE(acceptsContent(altered)) << at;
  }
}

TEST_F(Verifier, RefusesAPackageUnderAnotherComponentsName) {
  const std::string package = smallPackage(installKey());
  ASSERT_TRUE(acceptsContent(package));

  for (const char* name : {"wififw.bin", "tunerf.bin", "tunerfw2.bin", "Tunerfw.bin", "tunerfw.bin.bin"}) {
    const std::string path = std::string("/opt/media/USBDriveA/") + name;
    writeFile(path, package);
    EXPECT_FALSE(accepts(path.c_str())) << name;
  }
}

TEST_F(Verifier, RefusesAPackageForAnotherModel) {
  fwpackage::Statements statements = statementsFor("tunerfw");
  statements.model = "set-7";
  const std::string package = signedFile(kContent, installKey(), statements);

  {
    const TemporaryMount etc = setOfModel("set-7");
    EXPECT_TRUE(acceptsContent(package));
  }
  {
    const TemporaryMount etc = setOfModel("set-70");
    EXPECT_FALSE(acceptsContent(package));
    EXPECT_TRUE(acceptsContent(smallPackage(installKey())));
  }
}

TEST_F(Verifier, RefusesAPackageForOneModelWhenTheSetsIsUnknown) {
  fwpackage::Statements statements = statementsFor("tunerfw");
  statements.model = "set-7";
  const TemporaryMount etc = TemporaryMount::memory("/etc");
  fs::remove("/usr/lib/os-release");

  EXPECT_FALSE(acceptsContent(signedFile(kContent, installKey(), statements)));
  EXPECT_TRUE(acceptsContent(smallPackage(installKey())));
}

TEST_F(Verifier, RefusesAnExtensionPackage) {
  fwpackage::Statements statements = statementsFor("tunerfw");
  statements.kind = fwpackage::Kind::ExtensionPackage;

  EXPECT_FALSE(acceptsContent(signedFile(kContent, installKey(), statements)));
}

TEST_F(Verifier, RefusesTheOldFormatUnlessTheKeyMaySignIt) {
  const fwpack::SigningKey& key = installKey();
  const std::string package = oldSignedFile(kContent, key);

  EXPECT_FALSE(acceptsContent(package));
  writeFile(kOldFormatList, "0123456789abcdef\n");
  EXPECT_FALSE(acceptsContent(package));
  allowOldFormat(key);
  EXPECT_TRUE(acceptsContent(package));
}

TEST_F(Verifier, RefusesARevokedKeyInEveryFormat) {
  const fwpack::SigningKey& key = installKey();
  allowOldFormat(key);
  ASSERT_TRUE(acceptsContent(smallPackage(key)));

  fs::rename(kOldFormatList, kRevokedList);
  allowOldFormat(key);

  EXPECT_FALSE(acceptsContent(smallPackage(key)));
  EXPECT_FALSE(acceptsContent(oldSignedFile(kContent, key)));
}

TEST_F(Verifier, RefusesEverythingThatAnUnusableListDecidesAbout) {
  const fwpack::SigningKey& key = installKey();
  const std::string package = smallPackage(key);
  writeFile(kRevokedList, "not an identifier\n");
  EXPECT_FALSE(acceptsContent(package));

  fs::remove(kRevokedList);
  writeFile(kOldFormatList, "not an identifier\n");
  EXPECT_TRUE(acceptsContent(package));
  EXPECT_FALSE(acceptsContent(oldSignedFile(kContent, key)));
}

TEST_F(Verifier, RefusesAPackageBelowTheMinimumVersion) {
  const std::string package = smallPackage(installKey());  // of version 2.0.0
  writeFile(kMinimumVersion, "2.0.0\n");
  EXPECT_TRUE(acceptsContent(package));

  writeFile(kMinimumVersion, "2.0.1\n");
  EXPECT_FALSE(acceptsContent(package));
  writeFile(kMinimumVersion, "damaged");
  EXPECT_FALSE(acceptsContent(package));
}

TEST_F(Verifier, AcceptsAPackageOfManyBlocks) {
  const fwpack::SigningKey& key = installKey();

  EXPECT_TRUE(acceptsContent(signedFile(std::string(1000003, 'x'), key)));
}

TEST_F(Verifier, ReadsEachByteOnce) {
  const std::string package = signedFile(std::string(1000003, 'x'), installKey());
  bytesRead = 0;

  ASSERT_TRUE(acceptsContent(package));

  EXPECT_EQ(bytesRead, static_cast<std::int64_t>(package.size()));
}

TEST_F(Verifier, RefusesEveryFlippedByte) {
  const std::string package = smallPackage(installKey());

  for (std::size_t at = 0; at < package.size(); at += thoroughness::kEveryNth) {
    for (const unsigned int bit : {0U, 7U}) {
      std::string altered = package;
      altered[at] = static_cast<char>(static_cast<unsigned char>(altered[at]) ^ (1U << bit));
      EXPECT_FALSE(acceptsContent(altered)) << at;
    }
  }
}

TEST_F(Verifier, RefusesAPackageCutAtAnyByte) {
  const std::string package = smallPackage(installKey());

  for (std::size_t length = 0; length < package.size(); length += thoroughness::kEveryNth) {
    EXPECT_FALSE(acceptsContent(package.substr(0, length))) << length;
    EXPECT_FALSE(acceptsContent(package.substr(package.size() - length))) << length;
  }
}

TEST_F(Verifier, RefusesUnsignedFilesOfEveryLength) {
  installKey();

  for (std::size_t length = 0; length <= 700; length += thoroughness::kEveryNth) {
    EXPECT_FALSE(acceptsContent(std::string(length, '\0'))) << length;
    EXPECT_FALSE(acceptsContent(std::string(length, 'S'))) << length;
  }
}

TEST_F(Verifier, RefusesATrailerWithNothingBeforeIt) {
  EXPECT_FALSE(acceptsContent(signedFile("", installKey())));
}

TEST_F(Verifier, RefusesTrailingBytes) {
  const std::string package = smallPackage(installKey());

  EXPECT_FALSE(acceptsContent(package + '\0'));
  EXPECT_FALSE(acceptsContent(package + std::string(kTrailer, '\0')));
  EXPECT_FALSE(acceptsContent(package + package.substr(package.size() - kTrailer)));
}

TEST_F(Verifier, RefusesWhenThereIsNoKey) {
  const std::string package = smallPackage(testSigningKey("ed25519"));

  EXPECT_FALSE(acceptsContent(package));
  fs::remove_all(fwpackage::kKeyDirectory);
  EXPECT_FALSE(acceptsContent(package));
}

TEST_F(Verifier, RefusesAnotherMakersKey) {
  installKey();
  const fwpack::SigningKey foreign(testSigningKey("ed25519").algorithm());

  EXPECT_FALSE(acceptsContent(smallPackage(foreign)));
}

TEST_F(Verifier, RefusesAForeignSignatureUnderAKnownKeysIdentifier) {
  const std::string ours = smallPackage(installKey());
  const std::string theirs = smallPackage(fwpack::SigningKey(testSigningKey("ed25519").algorithm()));
  std::string forged = theirs;
  forged.replace(forged.size() - kTrailer, 22, ours, ours.size() - kTrailer, 22);

  EXPECT_FALSE(acceptsContent(forged));
}

TEST_F(Verifier, RefusesAKeyOfAnotherAlgorithmThanTheTrailers) {
  const std::string package = smallPackage(installKey());
  std::string relabelled = package;
  const std::size_t header = relabelled.size() - kTrailer;
  relabelled.replace(header + 9, 1, "\x03");       // RSA
  relabelled.replace(header + 18, 2, "\x80\x01");  // 384 bytes

  EXPECT_FALSE(acceptsContent(relabelled));
}

TEST_F(Verifier, FindsItsKeyAmongOthersAndAmongJunk) {
  const std::string keys = std::string(fwpackage::kKeyDirectory) + "/";
  writeFile(keys + "a.pem", publicPem(fwpack::SigningKey(testSigningKey("ed25519").algorithm())));
  writeFile(keys + "b.pem", "no key");
  writeFile(keys + "c.pem", std::string(1 << 20, 'k'));
  writeFile(keys + "d.pem", "");
  fs::create_directory(keys + "e.pem");
  ASSERT_EQ(mkfifo((keys + "f.pem").c_str(), 0644), 0);
  fs::create_symlink("/nowhere", keys + "g.pem");

  EXPECT_TRUE(acceptsContent(smallPackage(installKey())));
  // Every file is looked into for a key that none of them holds.
  EXPECT_FALSE(acceptsContent(smallPackage(fwpack::SigningKey(testSigningKey("ed25519").algorithm()))));
}

TEST_F(Verifier, TakesNoKeyFromAFileOfAnotherName) {
  const std::string package = smallPackage(installKey());
  fs::rename(kKey, std::string(kKey) + ".old");

  EXPECT_FALSE(acceptsContent(package));
}

TEST_F(Verifier, RefusesWhatIsNoFile) {
  installKey();
  fs::create_directories(kPackage);
  EXPECT_FALSE(accepts());

  fs::remove(kPackage);
  ASSERT_EQ(mkfifo(kPackage, 0644), 0);
  EXPECT_FALSE(accepts());

  fs::remove(kPackage);
  fs::create_symlink("/nowhere", kPackage);
  EXPECT_FALSE(accepts());

  EXPECT_FALSE(accepts("/dev/zero"));
  EXPECT_FALSE(accepts("/opt/media/absent.bin"));
  EXPECT_FALSE(accepts(""));
  EXPECT_FALSE(accepts(nullptr));
}

TEST_F(Verifier, FollowsALinkToAPackage) {
  writeFile("/opt/media/USBDriveA/real.bin", smallPackage(installKey()));
  fs::create_symlink("real.bin", kPackage);

  EXPECT_TRUE(accepts());
}

TEST_F(Verifier, RefusesAHugeFileWithoutReadingItAll) {
  writeFile(kPackage, smallPackage(installKey()));
  fs::resize_file(kPackage, (std::uintmax_t{1} << 31U) + 4096);
  bytesRead = 0;

  EXPECT_FALSE(accepts());
  EXPECT_LT(bytesRead, 4096);
}

TEST_F(Verifier, RefusesAPackageThatCannotBeReadToTheEnd) {
  const std::string package = signedFile(std::string(300000, 'x'), installKey());
  ASSERT_TRUE(acceptsContent(package));

  for (const std::int64_t offset : {0, 1, 65536, 200000, 299999, 300000}) {
    failingAt = offset;
    EXPECT_FALSE(accepts()) << offset;
  }
}

TEST_F(Verifier, GoesOnReadingAfterASignal) {
  const std::string package = smallPackage(installKey());

  for (const std::int64_t offset : {std::int64_t{0}, static_cast<std::int64_t>(package.size() - kTrailer)}) {
    interruptedAt = offset;

    EXPECT_TRUE(acceptsContent(package)) << offset;

    EXPECT_EQ(interruptedAt, -1) << "nothing was read there";
  }
}

TEST_F(Verifier, RefusesAPackageThatBecomesShorterWhileItIsRead) {
  const std::string package = signedFile(std::string(300000, 'x'), installKey());

  for (const std::int64_t size : {0, 1, 65536, 200000, 300000, 300533}) {
    endingAt = size;
    EXPECT_FALSE(acceptsContent(package)) << size;
  }
  endingAt = 300534;
  EXPECT_TRUE(accepts());
}

// Whatever goes wrong inside: memory, OpenSSL.
TEST_F(Verifier, RefusesAPackageWhenAnExceptionEndsTheCheck) {
  const std::string package = smallPackage(installKey());
  ASSERT_TRUE(acceptsContent(package));

  for (const std::int64_t offset : {std::int64_t{0}, static_cast<std::int64_t>(package.size() - kTrailer)}) {
    throwingAt = offset;
    EXPECT_FALSE(accepts()) << offset;
  }
  throwingAt = -1;
  EXPECT_TRUE(accepts());
}

TEST_F(Verifier, LeavesTheCallersErrorsAsTheyAre) {
  const std::string package = smallPackage(installKey());
  std::string altered = package;
  altered[20] = '!';
  writeFile("/usr/share/fw-update/keys/a.pem",
            "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n");
  for (const std::string& content : {package, altered}) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 77);

    acceptsContent(content);

    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
    EXPECT_EQ(ERR_get_error(), 0U);
  }
}

TEST_F(Verifier, LeavesNoErrorAndNoOpenFileBehind) {
  const std::string package = smallPackage(installKey());
  std::string altered = package;
  altered[20] = '!';
  ASSERT_TRUE(acceptsContent(package));
  const std::size_t before = openDescriptors();
  ERR_clear_error();

  EXPECT_TRUE(acceptsContent(package));
  EXPECT_FALSE(acceptsContent(altered));
  EXPECT_FALSE(acceptsContent(package.substr(1)));

  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
