// SPDX-License-Identifier: Apache-2.0
#include "secret-file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "file-descriptor.h"

namespace {

std::string* wipedBytes = nullptr;                      // what was there, when a test wants to know
ssize_t (*oddRead)(int, void*, std::size_t) = nullptr;  // in the place of reading, when a test wants that
int reads = 0;

ssize_t readReally(int descriptor, void* bytes, std::size_t size) {
  return syscall(SYS_read, descriptor, bytes, size);
}

}  // namespace

extern "C" ssize_t read(int descriptor, void* bytes, std::size_t size) {
  if (oddRead == nullptr) {
    return readReally(descriptor, bytes, size);
  }
  ++reads;
  return oddRead(descriptor, bytes, size);
}

// In the place of the C library's explicit_bzero, for the code under test.
extern "C" void wipe(void* bytes, std::size_t size) noexcept __asm__("explicit_bzero");
extern "C" void wipe(void* bytes, std::size_t size) noexcept {
  if (wipedBytes != nullptr) {
    wipedBytes->assign(static_cast<const char*>(bytes), size);
  }
  std::memset(bytes, 0, size);
}

namespace {

namespace fs = std::filesystem;
using secret::readPackageKey;
using secret::readSecretFile;
using ::testing::HasSubstr;

class SecretFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/secret-file-XXXXXX";
    place_ = mkdtemp(name);
    path_ = place_ / "key";
  }
  void TearDown() override {
    wipedBytes = nullptr;
    oddRead = nullptr;
    reads = 0;
    fs::remove_all(place_);
  }

  void write(const std::string& bytes, mode_t mode = 0600) const {
    std::ofstream(path_, std::ios::binary) << bytes;
    ASSERT_EQ(chmod(path_.c_str(), mode), 0);
  }
  template <typename Call>
  static std::string failure(Call call) {
    try {
      call();
    } catch (const secret::Error& error) {
      return error.what();
    }
    return "no error";
  }

  fs::path place_, path_;
};

TEST_F(SecretFile, IsReadWhole) {
  const std::string bytes(65536, 'k');
  write(bytes);

  const auto content = readSecretFile(path_);

  EXPECT_EQ(std::string(content.data(), content.data() + content.size()), bytes);
  EXPECT_EQ(content.warning, "");
}

TEST_F(SecretFile, IsRefusedWhenItIsTooLong) {
  write(std::string(65537, 'k'));

  EXPECT_EQ(failure([&] { readSecretFile(path_); }),
            "the key file " + path_.string() + " is too long to be a key");
}

TEST_F(SecretFile, IsRefusedWhenItIsMissing) {
  EXPECT_EQ(failure([&] { readSecretFile(path_); }),
            "the key file " + path_.string() + " cannot be read: No such file or directory");
}

TEST_F(SecretFile, IsRefusedWhenItIsNoRegularFile) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);

  EXPECT_EQ(failure([&] { readSecretFile(path_); }),
            "the key file " + path_.string() + " is no regular file");
  EXPECT_THAT(failure([&] { readSecretFile(place_); }), HasSubstr("is no regular file"));
}

TEST_F(SecretFile, IsReadOnAfterASignalAndAShortRead) {
  write("secret");
  oddRead = [](int descriptor, void* bytes, std::size_t) -> ssize_t {
    errno = EINTR;
    return reads == 1 ? -1 : readReally(descriptor, bytes, 1);
  };

  const auto content = readSecretFile(path_);

  EXPECT_EQ(std::string(content.data(), content.data() + content.size()), "secret");
}

TEST_F(SecretFile, IsRefusedWhenItShrinksMeanwhile) {
  write("secret");
  oddRead = [](int, void*, std::size_t) -> ssize_t {
    errno = reads == 1 ? EINTR : ELOOP;
    return reads == 1 ? 0 : -1;
  };

  EXPECT_EQ(failure([&] { readSecretFile(path_); }),
            "the key file " + path_.string() + " cannot be read: Input/output error");
}

TEST_F(SecretFile, IsRefusedWhenItCannotBeRead) {
  write("secret");
  oddRead = [](int, void* bytes, std::size_t size) -> ssize_t {
    std::memset(bytes, 0, size);
    errno = ELOOP;
    return reads == 1 ? -1 : static_cast<ssize_t>(size);
  };

  EXPECT_THAT(failure([&] { readSecretFile(path_); }),
              HasSubstr("cannot be read: Too many levels of symbolic links"));
}

TEST_F(SecretFile, IsWarnedOfWhenOthersMayUseIt) {
  for (const mode_t mode : {0640U, 0604U, 0601U, 0777U}) {
    write("key", mode);

    const std::string warning = readSecretFile(path_).warning;

    EXPECT_THAT(warning, HasSubstr("others than its owner may use the key file " + path_.string()));
    EXPECT_THAT(warning, HasSubstr("run: chmod 600 " + path_.string()));
  }
  EXPECT_THAT(readSecretFile(path_).warning, HasSubstr("(mode 0777)"));
}

TEST_F(SecretFile, LeavesNoDescriptorOpen) {
  write("key");
  const base::FileDescriptor kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  close(STDIN_FILENO);  // the file gets the lowest number

  readSecretFile(path_);

  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  if (kept.get() >= 0) {
    dup2(kept.get(), STDIN_FILENO);
  }
}

TEST_F(SecretFile, IsWipedWhenItsOwnerGoes) {
  write("secret");
  std::string wiped;
  {
    const auto content = readSecretFile(path_);
    wipedBytes = &wiped;
  }

  EXPECT_EQ(wiped, "secret");
}

TEST_F(SecretFile, IsWipedOnceWhenItIsHandedOn) {
  write("secret");
  auto first = readSecretFile(path_);
  const auto second = std::move(first);

  EXPECT_EQ(std::string(second.data(), second.data() + second.size()), "secret");
}

TEST_F(SecretFile, OfAPackageKeyHasItsSize) {
  write(std::string(32, 'k'));
  EXPECT_EQ(readPackageKey(path_).size(), 32U);

  write(std::string(31, 'k'));
  EXPECT_EQ(failure([&] { readPackageKey(path_); }),
            "the key file " + path_.string() + " holds 31 bytes; a package key is 32 raw bytes");
  write(std::string(33, 'k'));
  EXPECT_THAT(failure([&] { readPackageKey(path_); }), HasSubstr("holds 33 bytes"));
}

}  // namespace
