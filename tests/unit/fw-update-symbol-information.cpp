// The information file and the image checksum.
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <memory>
#include <thread>

#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

constexpr const char* Info = "/tmp/info.json";
constexpr const char* LoadFailed =
    "6 fw-update-symbol.cpp loadInformation Error: json loadInformation fail.(/tmp/info.json)\n";

class InformationFile : public LibraryTest {
 protected:
  bool load(const std::string& json) {
    writeFile(Info, json);
    return symbol().loadInformation(Info);
  }

  FWUpdateSymbol& symbol() {
    if (!module) {
      module = std::make_unique<FWUpdateSymbol>(bound());
    }
    return *module;
  }

 private:
  std::unique_ptr<FWUpdateSymbol> module;
};

class InformationInUse : public LibraryTest {
 protected:
  // Decides with this "info.json" and an image; the version that the module was
  // asked about is kept.
  int decide(const std::string& json, const std::string& image) {
    FWUpdateSymbol symbol = bound();
    writeFile(std::string(Builtin) + "abc/abc.bin", image);
    writeInformation(Builtin, "abc", json);
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
  writeImage(Builtin, "abc", "1.0", "first image", 10);
  char data[] = "";
  ASSERT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), 1);
  writeInformation(Builtin, "abc", "{\"version\":\"9.0\",\"crc\":5,\"expected_time\":-5}");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), -1);

  EXPECT_EQ(symbol.getExpectedUpdateTime(), 10U) << "the decision is as it was";
}

class MalformedInformation : public InformationFile, public ::testing::WithParamInterface<const char*> {};

TEST_P(MalformedInformation, IsRefusedWithOneMessage) {
  EXPECT_FALSE(load(GetParam()));

  EXPECT_THAT(recording::messages(), ElementsAre(LoadFailed));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: json loadInformation fail.(%s)\n"));
}

INSTANTIATE_TEST_SUITE_P(InformationFile, MalformedInformation,
                         ::testing::Values("", "{", "{\"version\":\"1", "no json", "[]", "[{}]", "\"text\"",
                                           "17", "null", "true", "{\"version\":[]}",
                                           "{\"version\":{\"a\":1}}", "{\"crc\":}", "{\"version\" \"1\"}",
                                           "\xFF\xFE\x00\x01"));

TEST_F(InformationFile, RefusesAMissingFile) {
  EXPECT_FALSE(symbol().loadInformation(Info));

  EXPECT_THAT(recording::messages(), ElementsAre(LoadFailed));
}

TEST_F(InformationFile, RefusesADirectory) {
  std::filesystem::create_directories(Info);

  EXPECT_FALSE(symbol().loadInformation(Info));

  EXPECT_THAT(recording::messages(), ElementsAre(LoadFailed));
}

TEST_F(InformationFile, RefusesAFileItMayNotRead) {
  writeFile(Info, "{}");
  std::filesystem::permissions(Info, std::filesystem::perms::none);
  FWUpdateSymbol& record = symbol();

  const WithoutFileOverride asAnyone;

  EXPECT_FALSE(record.loadInformation(Info));
  EXPECT_THAT(recording::messages(), ElementsAre(LoadFailed));
}

TEST_F(InformationFile, RefusesNestingThatTheParserWillNotFollow) {
  EXPECT_FALSE(load("{\"a\":" + std::string(100000, '[')));

  EXPECT_THAT(recording::messages(), ElementsAre(LoadFailed));
}

TEST_F(InformationFile, ReadsAHugeFile) {
  const std::string filler(64U << 20, ' ');

  EXPECT_TRUE(load("{" + filler + "\"version\":\"1\"}"));

  EXPECT_THAT(recording::messages(), IsEmpty());
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

// A pipe gives its content in the pieces in which it was written.
TEST_F(ImageChecksum, GoesOnAfterShortAndInterruptedReads) {
  ASSERT_EQ(mkfifo("/tmp/image", 0600), 0);
  struct sigaction action {};
  static std::atomic<int> signals;
  action.sa_handler = [](int) { ++signals; };
  sigaction(SIGUSR1, &action, nullptr);
  unsigned int result = 0;
  std::thread reader([&] { result = FWUpdateSymbol("libabc").getBinaryCRC32("/tmp/image"); });
  const int writer = open("/tmp/image", O_WRONLY);

  ASSERT_EQ(write(writer, "1234", 4), 4);
  for (int unread = 4; unread != 0;) {
    ASSERT_EQ(ioctl(writer, FIONREAD, &unread), 0);
  }
  while (signals < 20) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  ASSERT_EQ(write(writer, "56789", 5), 5);
  close(writer);
  reader.join();

  EXPECT_EQ(result, 0x6A50465CU);
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
