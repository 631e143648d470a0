// SPDX-License-Identifier: Apache-2.0
// The information file and the image checksum.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>

#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// What the reads of the library meet.
std::function<void()> afterRead;
std::size_t shorterReads = SIZE_MAX;  // bytes that a read gives at most
int interruptedReads = 0;
bool failReads = false;

bool isLibrary(const void* code) {
  Dl_info info;
  return dladdr(code, &info) != 0 && std::strstr(info.dli_fname, "libfw-update-control.so") != nullptr;
}

}  // namespace

// Takes the place of the C library's for the library.
extern "C" __attribute__((visibility("default"))) ssize_t read(int file, void* buffer, size_t size) {
  using Read = ssize_t (*)(int, void*, size_t);
  static const auto kReal = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "read"));
  if (!isLibrary(__builtin_return_address(0))) {
    return kReal(file, buffer, size);
  }
  if (interruptedReads > 0) {
    --interruptedReads;
    errno = EINTR;
    return -1;
  }
  if (failReads) {
    errno = EIO;
    return -1;
  }
  const ssize_t got = kReal(file, buffer, std::min(size, shorterReads));
  if (afterRead) {
    afterRead();
  }
  return got;
}

namespace {

constexpr const char* kInfo = "/tmp/info.json";
constexpr const char* kLoadFailed =
    "6 fw-update-symbol.cpp loadInformation Error: json loadInformation fail.(/tmp/info.json)\n";

void append(const char* path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

// An "info.json" of size bytes.
std::string withSpaces(std::size_t size) {
  const std::string end = "\"version\":\"1\"}";
  return "{" + std::string(size - 1 - end.size(), ' ') + end;
}

class InformationFile : public LibraryTest {
 protected:
  bool load(const std::string& json) {
    writeFile(kInfo, json);
    return symbol().loadInformation(kInfo);
  }

  FWUpdateSymbol& symbol() {
    if (!module_) {
      module_ = std::make_unique<FWUpdateSymbol>(bound());
    }
    return *module_;
  }

 private:
  std::unique_ptr<FWUpdateSymbol> module_;
};

class InformationInUse : public LibraryTest {
 protected:
  // Decides with this "info.json" and an image; the version that the module was
  // asked about is kept.
  int decide(const std::string& json, const std::string& image) {
    FWUpdateSymbol symbol = bound();
    writeFile(std::string(kBuiltin) + "abc/abc.bin", image);
    writeInformation(kBuiltin, "abc", json);
    char data[] = "";
    const int result = symbol.isNeedUpdate(CALLER_UPGRADE_APP, data);
    expectedTime = symbol.getExpectedUpdateTime();
    return result;
  }

  unsigned int expectedTime = 0;
};

std::string asked(const std::string& version) {
  return "libabc.checkVersion(\"" + version + "\", 0)";
}

}  // namespace

TEST_F(InformationInUse, HasDefaultsForEveryKey) {
  EXPECT_EQ(decide("{}", ""), 1);

  EXPECT_THAT(recording::calls(), Contains(asked("0000")));
  EXPECT_EQ(expectedTime, 300U);
}

TEST_F(InformationInUse, GivesVersionCrcAndExpectedTime) {
  EXPECT_EQ(decide("{\"version\":\"1.2.3 beta\",\"crc\":1783645788,\"expected_time\":77,\"unknown\":[1]}",
                   "123456789"),
            1);

  EXPECT_THAT(recording::calls(), Contains(asked("1.2.3 beta")));
  EXPECT_EQ(expectedTime, 77U);
}

TEST_F(InformationInUse, TurnsNumbersAndBooleansIntoAVersionText) {
  EXPECT_EQ(decide("{\"version\":12}", ""), 1);
  EXPECT_THAT(recording::calls(), Contains(asked("12")));

  EXPECT_EQ(decide("{\"version\":true}", ""), 1);
  EXPECT_THAT(recording::calls(), Contains(asked("true")));
}

TEST_F(InformationInUse, TakesTheLargestNumbers) {
  EXPECT_EQ(decide("{\"crc\":0,\"expected_time\":4294967295}", ""), 1);

  EXPECT_EQ(expectedTime, 4294967295U);
}

TEST_F(InformationInUse, LeavesTheDecisionWhenItCannotBeReadAgain) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "1.0", "first image", 10);
  char data[] = "";
  ASSERT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), 1);
  writeInformation(kBuiltin, "abc", "{\"version\":\"9.0\",\"crc\":5,\"expected_time\":-5}");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), -1);

  EXPECT_EQ(symbol.getExpectedUpdateTime(), 10U) << "the decision is as it was";
}

class MalformedInformation : public InformationFile, public ::testing::WithParamInterface<const char*> {};

TEST_P(MalformedInformation, IsRefusedWithOneMessage) {
  EXPECT_FALSE(load(GetParam()));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: json loadInformation fail.(%s)\n"));
}

INSTANTIATE_TEST_SUITE_P(InformationFile, MalformedInformation,
                         ::testing::Values("", "{", "{\"version\":\"1", "no json", "[]", "[{}]", "\"text\"",
                                           "17", "null", "true", "{\"version\":[]}",
                                           "{\"version\":{\"a\":1}}", "{\"crc\":}", "{\"version\" \"1\"}",
                                           "\xFF\xFE\x00\x01"));

TEST_F(InformationFile, RefusesAMissingFile) {
  EXPECT_FALSE(symbol().loadInformation(kInfo));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesADirectory) {
  std::filesystem::create_directories(kInfo);

  EXPECT_FALSE(symbol().loadInformation(kInfo));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesAFileItMayNotRead) {
  writeFile(kInfo, "{}");
  std::filesystem::permissions(kInfo, std::filesystem::perms::none);
  FWUpdateSymbol& record = symbol();

  const WithoutFileOverride asAnyone;

  EXPECT_FALSE(record.loadInformation(kInfo));
  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesNestingThatTheParserWillNotFollow) {
  EXPECT_FALSE(load("{\"a\":" + std::string(100000, '[')));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, ReadsAFileOf64KiB) {
  EXPECT_TRUE(load(withSpaces(65536)));

  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(InformationFile, RefusesAFileOfMoreThan64KiB) {
  EXPECT_FALSE(load(withSpaces(65537)));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesAHugeFileWithoutReadingIt) {
  FWUpdateSymbol& record = symbol();
  writeFile(kInfo, "");
  std::filesystem::resize_file(kInfo, std::uintmax_t{1} << 40);
  int reads = 0;
  afterRead = [&reads] { ++reads; };

  EXPECT_FALSE(record.loadInformation(kInfo));

  EXPECT_EQ(reads, 0);
  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesAFileThatGrowsWhileItIsRead) {
  FWUpdateSymbol& record = symbol();
  writeFile(kInfo, "{}");
  afterRead = [] { append(kInfo, " "); };

  EXPECT_FALSE(record.loadInformation(kInfo));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, RefusesAFileThatCannotBeReadToItsEnd) {
  FWUpdateSymbol& record = symbol();
  writeFile(kInfo, "{}  and more");
  shorterReads = 2;
  afterRead = [] { failReads = true; };

  EXPECT_FALSE(record.loadInformation(kInfo));

  EXPECT_THAT(recording::messages(), ElementsAre(kLoadFailed));
}

TEST_F(InformationFile, GoesOnAfterShortAndInterruptedReads) {
  FWUpdateSymbol& record = symbol();
  writeFile(kInfo, "{\"version\":\"1\"}");
  shorterReads = 3;
  interruptedReads = 2;

  EXPECT_TRUE(record.loadInformation(kInfo));
}

struct WrongNumber {
  const char* json;
  const char* error;
};

void PrintTo(const WrongNumber& row, std::ostream* out) {
  *out << row.json;
}

class WronglyTypedNumber : public InformationFile, public ::testing::WithParamInterface<WrongNumber> {};

TEST_P(WronglyTypedNumber, IsReportedWithTheWordsOfTheCrc) {
  EXPECT_FALSE(load(GetParam().json));

  EXPECT_THAT(
      recording::messages(),
      ElementsAre(std::string("6 fw-update-symbol.cpp loadInformation Error: json crc read fail error:") +
                  GetParam().error + " (/tmp/info.json)\n"));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: json crc read fail error:%s (%s)\n"));
}

INSTANTIATE_TEST_SUITE_P(
    InformationFile, WronglyTypedNumber,
    ::testing::Values(WrongNumber{"{\"crc\":\"5\"}", "Value is not convertible to UInt."},
                      WrongNumber{"{\"crc\":-1}", "LargestInt out of UInt range"},
                      WrongNumber{"{\"crc\":{}}", "Value is not convertible to UInt."},
                      WrongNumber{"{\"crc\":4294967296}", "LargestInt out of UInt range"},
                      WrongNumber{"{\"expected_time\":-5}", "LargestInt out of UInt range"},
                      WrongNumber{"{\"expected_time\":\"300\"}", "Value is not convertible to UInt."},
                      WrongNumber{"{\"expected_time\":[]}", "Value is not convertible to UInt."}));

// ---- What stands in the file's place ------------------------------------------------

namespace {

struct Intruder {
  const char* name;
  void (*put)(const std::string& path);
};

void PrintTo(const Intruder& row, std::ostream* out) {
  *out << row.name;
}

void putSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(listener);
}

constexpr Intruder kIntruders[] = {
    {"AFifo", [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0666), 0); }},
    {"ALinkToAFifo",
     [](const std::string& path) {
       ASSERT_EQ(mkfifo("/tmp/fifo", 0666), 0);
       std::filesystem::create_symlink("/tmp/fifo", path);
     }},
    {"ALinkToAnEndlessDevice",
     [](const std::string& path) { std::filesystem::create_symlink("/dev/zero", path); }},
    {"ALinkToAnEmptyDevice",
     [](const std::string& path) { std::filesystem::create_symlink("/dev/null", path); }},
    {"ADirectory", [](const std::string& path) { std::filesystem::create_directory(path); }},
    {"ASocket", putSocket},
};

std::string nameOf(const ::testing::TestParamInfo<Intruder>& info) {
  return info.param.name;
}

class InTheImagesPlace : public LibraryTest, public ::testing::WithParamInterface<Intruder> {
 protected:
  static constexpr const char* kImage = "/lib/firmware/ext/abc/abc.bin";
  static constexpr const char* kInfo = "/lib/firmware/ext/abc/info.json";
  char noData[1] = "";
};

class InTheInformationsPlace : public InTheImagesPlace {};

}  // namespace

TEST_P(InTheInformationsPlace, IsRefusedAsMalformedAndNeverWaitedFor) {
  FWUpdateSymbol module = bound();
  writeFile(kImage, "content");
  GetParam().put(kInfo);

  EXPECT_EQ(module.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);
  EXPECT_EQ(module.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("libabc Firmware isNeedUpdateModules Try(abc)",
                          "Error: json loadInformation fail.(" + std::string(kInfo) + ")\n",
                          "Error: json information load fail", "abc Firmware Update Try",
                          "Error: json loadInformation fail.(" + std::string(kInfo) + ")\n",
                          "Error: json information load fail"));
  EXPECT_THAT(recording::calls(), Not(Contains(StartsWith("libabc.checkVersion"))));
}

INSTANTIATE_TEST_SUITE_P(InformationFile, InTheInformationsPlace, ::testing::ValuesIn(kIntruders), nameOf);

TEST_P(InTheImagesPlace, IsAnImageThatCannotBeOpened) {
  FWUpdateSymbol module = bound();
  GetParam().put("/tmp/image");

  EXPECT_EQ(module.getBinaryCRC32("/tmp/image"), 0U);

  EXPECT_THAT(recording::texts(), ElementsAre("Error: binary file is NULL\n"));
}

TEST_P(InTheImagesPlace, IsNeverHandedToTheModule) {
  FWUpdateSymbol module = bound();
  writeFile(kInfo, "{\"crc\":0}");
  GetParam().put(kImage);

  EXPECT_EQ(module.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);
  EXPECT_EQ(module.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("libabc Firmware isNeedUpdateModules Try(abc)", "Error: binary file is NULL\n",
                          "Error: abc Firmware CRC32 different", "abc Firmware Update Try",
                          "Error: binary file is NULL\n", "Error: abc Firmware crc32 different"));
  EXPECT_THAT(recording::calls(), Not(Contains(StartsWith("libabc.doUpdate"))));
}

INSTANTIATE_TEST_SUITE_P(ImageChecksum, InTheImagesPlace, ::testing::ValuesIn(kIntruders), nameOf);

// ---- Checksum -------------------------------------------------------------------

namespace {

class ImageChecksum : public LibraryTest {
 protected:
  unsigned int checksum(const std::string& content) {
    writeFile("/tmp/image", content);
    return FWUpdateSymbol("libabc").getBinaryCRC32("/tmp/image");
  }
};

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  unsigned int state = 12345;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace

TEST_F(ImageChecksum, HasTheKnownCheckValue) {
  EXPECT_EQ(checksum("123456789"), 0x6A50465CU);
}

TEST_F(ImageChecksum, HasTheKnownTableEntries) {
  EXPECT_EQ(checksum(std::string(1, '\x01')), 0x01B23CA3U);
  EXPECT_EQ(checksum(std::string(1, '\xFF')), 0x917A7561U);
  EXPECT_EQ(checksum(std::string(1, '\0')), 0U);
}

TEST_F(ImageChecksum, ClosesTheImage) {
  const auto openFiles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = openFiles();

  checksum("content");

  EXPECT_EQ(openFiles(), before);
}

TEST_F(ImageChecksum, IsZeroForAnEmptyImage) {
  EXPECT_EQ(checksum(""), 0U);

  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(ImageChecksum, CoversTheWholeFileAtEveryChunkBoundary) {
  for (const std::size_t size : {1U, 32767U, 32768U, 32769U, 65535U, 65536U, 65537U, 1000003U}) {
    const std::string bytes = pattern(size);
    EXPECT_EQ(checksum(bytes), referenceCrc(bytes)) << size;
  }
}

TEST_F(ImageChecksum, GoesOnAfterShortAndInterruptedReads) {
  shorterReads = 4;
  interruptedReads = 20;

  EXPECT_EQ(checksum("123456789"), 0x6A50465CU);
}

TEST_F(ImageChecksum, EndsForAnImageThatGrowsForEver) {
  const std::string grown(1000, 'x');
  int reads = 0;
  afterRead = [&] {
    if (++reads > 100) {
      failReads = true;  // so that the test ends
    }
    append("/tmp/image", grown);
  };

  EXPECT_NE(checksum("123456789"), 0x6A50465CU) << "it is not the image that was opened";

  EXPECT_LE(reads, 2);
}

TEST_F(ImageChecksum, IsZeroWithAMessageForAnImageThatCannotBeOpened) {
  EXPECT_EQ(FWUpdateSymbol("libabc").getBinaryCRC32("/tmp/missing"), 0U);

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-symbol.cpp getBinaryCRC32 Error: binary file is NULL\n"));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: binary file is NULL\n"));
}

TEST_F(ImageChecksum, IsZeroWithAMessageForAnUnreadableImage) {
  writeFile("/tmp/image", "content");
  std::filesystem::permissions("/tmp/image", std::filesystem::perms::none);

  const WithoutFileOverride asAnyone;

  EXPECT_EQ(FWUpdateSymbol("libabc").getBinaryCRC32("/tmp/image"), 0U);
  EXPECT_THAT(recording::texts(), ElementsAre("Error: binary file is NULL\n"));
}
