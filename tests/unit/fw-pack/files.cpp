// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "exit-code.h"
#include "interruption.h"
#include "limited-resource.h"
#include "temporary-folder.h"

namespace fs = std::filesystem;

namespace {

// Called whenever a file is put on the disk.
std::function<void()> onSync;
// What putting a directory on the disk fails with; 0: nothing.
int directoryError = 0;

bool isDirectory(int file) {
  struct stat status = {};
  return fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

// Takes the place of the C library's, and does the same.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int fsync(int file) {
  if (onSync) {
    onSync();
  }
  if (directoryError != 0 && isDirectory(file)) {
    errno = directoryError;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, file));
}

namespace {

constexpr std::uint32_t kCheckCrc = 0x6A50465CU;  // of "123456789"

using fwpack::Existing;
using fwpack::Failure;
using fwpack::InputFile;
using fwpack::OutputFile;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

class Files : public ::testing::Test {
 protected:
  void SetUp() override {
    onSync = nullptr;
    directoryError = 0;
  }
  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
  void put(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
  }
  std::string content(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  std::size_t count() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory_.path()), fs::directory_iterator()));
  }

 private:
  const base::TemporaryFolder directory_{fs::temp_directory_path() / "fw-test"};
};

std::ptrdiff_t openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

template <typename Act>
void expectFailure(const Act& act, const std::string& sentence) {
  EXPECT_THAT(act, ThrowsMessage<Failure>(HasSubstr(sentence)));
}

std::string readPart(const InputFile& file, std::uint64_t offset, std::uint64_t size) {
  std::string text;
  file.read(offset, size, [&](const unsigned char* bytes, std::size_t count) {
    text.append(reinterpret_cast<const char*>(bytes), count);
  });
  return text;
}

TEST_F(Files, AreReadInPartsAndAsAWhole) {
  put("file", "0123456789");
  const InputFile file(path("file"));

  EXPECT_EQ(file.size(), 10U);
  EXPECT_EQ(readPart(file, 0, 10), "0123456789");
  EXPECT_EQ(readPart(file, 3, 4), "3456");
  EXPECT_EQ(readPart(file, 5, 0), "");
  EXPECT_EQ(file.text(8, 100), "89");
  EXPECT_EQ(file.text(10, 100), "");
  EXPECT_EQ(file.text(11, 100), "");
}

TEST_F(Files, OfManyBlocksAreReadToTheLastByte) {
  std::string large;
  for (int i = 0; large.size() < 200001; ++i) {
    large += std::to_string(i);
  }
  put("file", large);
  const InputFile file(path("file"));

  EXPECT_EQ(readPart(file, 0, large.size()), large);
  EXPECT_EQ(readPart(file, 65535, 65538), large.substr(65535, 65538));
}

TEST_F(Files, ThatBecomeShorterAreNoInput) {
  put("file", std::string(100000, 'x'));
  const InputFile file(path("file"));
  fs::resize_file(path("file"), 70000);

  expectFailure([&] { readPart(file, 0, 100000); }, "became shorter while it was read");
  // Whatever an earlier call left in errno.
  expectFailure([&] { file.read(0, 100000, [](const unsigned char*, std::size_t) { errno = EINTR; }); },
                "became shorter while it was read");
}

TEST_F(Files, ThatAreNoneAreNoInput) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);

  expectFailure([&] { InputFile file(path("absent")); }, "cannot be read: No such file");
  expectFailure([&] { InputFile file(path("fifo")); }, "is no regular file");
  expectFailure([&] { InputFile file(path(".")); }, "is no regular file");
}

TEST_F(Files, ThatAreRefusedAreClosed) {
  const auto before = openDescriptors();

  expectFailure([&] { InputFile file(path(".")); }, "is no regular file");
  put("file", "x");
  { const InputFile file(path("file")); }

  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Files, AppearWhenTheyAreCommitted) {
  OutputFile file(path("file"), 0640);
  file.write("some ");
  file.write("text");
  EXPECT_FALSE(fs::exists(path("file")));

  file.commit();

  EXPECT_EQ(content("file"), "some text");
  EXPECT_EQ(static_cast<unsigned int>(fs::status(path("file")).permissions()), 0640U);
  EXPECT_EQ(count(), 1U);
}

// And their names after that.
TEST_F(Files, AreOnTheDiskBeforeTheyAppear) {
  std::vector<bool> there;
  onSync = [&] { there.push_back(fs::exists(path("file"))); };
  OutputFile file(path("file"), 0644);
  file.write("text");

  file.commit();

  EXPECT_EQ(there, (std::vector<bool>{false, true}));
}

TEST_F(Files, FailWhenTheirNamesCannotBePutOnTheDisk) {
  OutputFile file(path("file"), 0644);
  directoryError = EIO;

  expectFailure([&] { file.commit(); }, "cannot be put on the disk: Input/output error");
}

TEST_F(Files, AreWrittenWhereDirectoriesCannotBePutOnTheDisk) {
  OutputFile file(path("file"), 0644);
  file.write("text");
  directoryError = EINVAL;

  file.commit();

  EXPECT_EQ(content("file"), "text");
}

TEST_F(Files, ThatAreCommittedAreClosed) {
  OutputFile file(path("new"), fwpack::kPublicMode);
  const auto open = openDescriptors();

  file.commit();

  EXPECT_EQ(openDescriptors(), open - 1);
}

TEST_F(Files, LieInDirectoriesThatAreOnTheDisk) {
  int synced = 0;
  onSync = [&synced] { ++synced; };

  fwpack::makeDirectories(path("one/two"));
  const int whenNew = std::exchange(synced, 0);
  fwpack::makeDirectories(path("one/two"));

  EXPECT_TRUE(fs::is_directory(path("one/two")));
  EXPECT_EQ(whenNew, 2);
  EXPECT_EQ(synced, 0);
}

TEST_F(Files, ThatAreNotCommittedLeaveNothing) {
  put("file", "old");
  {
    OutputFile file(path("file"), 0644);
    file.write("new");
  }

  EXPECT_EQ(content("file"), "old");
  EXPECT_EQ(count(), 1U);
}

TEST_F(Files, AreReplacedOrKept) {
  put("file", "old");
  expectFailure([&] { OutputFile file(path("file"), 0644, Existing::Keep); },
                "is there already and is not overwritten");

  OutputFile file(path("file"), 0644);
  file.write("new");
  file.commit();

  EXPECT_EQ(content("file"), "new");
}

TEST_F(Files, ThatAppearMeanwhileAreKept) {
  OutputFile file(path("file"), 0644, Existing::Keep);
  put("file", "precious");

  expectFailure([&] { file.commit(); }, "is there already and is not overwritten");

  EXPECT_EQ(content("file"), "precious");
}

// After the last look at what stands there.
TEST_F(Files, ThatAppearAtTheLastMomentAreKept) {
  OutputFile file(path("file"), 0644, Existing::Keep);
  onSync = [&] { put("file", "precious"); };

  expectFailure([&] { file.commit(); }, "cannot be written: File exists");

  EXPECT_EQ(content("file"), "precious");
}

TEST_F(Files, ReplaceNothingButFiles) {
  fs::create_symlink("/nowhere", path("link"));
  fs::create_directory(path("directory"));
  expectFailure([&] { OutputFile file(path("link"), 0644); }, "is no regular file");
  expectFailure([&] { OutputFile file(path("directory"), 0644); }, "is no regular file");

  OutputFile file(path("file"), 0644);
  ASSERT_EQ(mkfifo(path("file").c_str(), 0600), 0);
  expectFailure([&] { file.commit(); }, "is no regular file");
  EXPECT_TRUE(fs::is_fifo(path("file")));
}

TEST_F(Files, ThatCannotBeWrittenFail) {
  expectFailure([&] { OutputFile file(path("absent/file"), 0644); }, "cannot be written: No such file");

  OutputFile file(path("file"), 0644);
  std::string sentence;
  {
    const auto full = LimitedResource::fileSize(10);
    try {
      file.write(std::string(20, 'x'));
    } catch (const Failure& failure) {
      sentence = failure.what();
    }
  }
  EXPECT_THAT(sentence, HasSubstr("cannot be written: File too large"));
}

TEST_F(Files, AreCopied) {
  put("from", std::string(100000, 'c'));

  fwpack::copyFile(InputFile(path("from")), path("to"));

  EXPECT_EQ(content("to"), std::string(100000, 'c'));
  EXPECT_EQ(static_cast<unsigned int>(fs::status(path("to")).permissions()), 0644U);
}

TEST_F(Files, HaveTheChecksumOfTheDescription) {
  put("check", "123456789");
  put("empty", "");

  EXPECT_EQ(fwpack::imageCrc(InputFile(path("check"))), kCheckCrc);
  EXPECT_EQ(fwpack::imageCrc(InputFile(path("empty"))), 0U);
}

TEST_F(Files, AreDescribedUnlessTheyAreEmpty) {
  put("check", "123456789");
  put("empty", "");

  const image::Information made = fwpack::describe(InputFile(path("check")), "2.0", 30);

  EXPECT_EQ(made.version, "2.0");
  EXPECT_EQ(made.crc, kCheckCrc);
  EXPECT_EQ(made.expectedTime, 30U);
  EXPECT_THROW(fwpack::describe(InputFile(path("empty")), "2.0", 30), fwpack::Failure);
}

// Last in the file: from then on the process is interrupted. Each test has its own.
TEST_F(Files, AreNeitherReadNorCommittedAfterAnInterruption) {
  put("file", "x");
  const InputFile input(path("file"));
  OutputFile output(path("new"), 0644);
  fwpack::catchInterruptions();

  std::raise(SIGTERM);

  EXPECT_THROW(readPart(input, 0, 1), tool::Interrupted);
  EXPECT_THROW(output.commit(), tool::Interrupted);
  EXPECT_FALSE(fs::exists(path("new")));
}

TEST(Interruption, ThatIsIgnoredStaysIgnored) {
  std::signal(SIGHUP, SIG_IGN);
  fwpack::catchInterruptions();

  std::raise(SIGHUP);

  EXPECT_NO_THROW(fwpack::endIfInterrupted());
}

TEST(Interruption, TellsItsSignal) {
  fwpack::catchInterruptions();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::raise(signal);
    try {
      fwpack::endIfInterrupted();
      ADD_FAILURE() << signal;
    } catch (const tool::Interrupted& interrupted) {
      EXPECT_EQ(interrupted.signal(), signal);
    }
  }
}

}  // namespace
