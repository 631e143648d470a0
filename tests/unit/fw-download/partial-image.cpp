// SPDX-License-Identifier: Apache-2.0
#include "partial-image.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

#include "device-environment.h"
#include "failure.h"
#include "file-calls.h"

namespace {

namespace fs = std::filesystem;
using fwdownload::noteText;
using fwdownload::Origin;
using fwdownload::PartialImage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kDirectory = "/opt/usr/apps/appbinarymanager/";
const std::string kPart = kDirectory + "wifiempfw.img.part";
const std::string kNote = kPart + ".info";
const std::string kUrl = "https://h/wifiempfw.img";
const Origin kOrigin{kUrl, "\"tag\"", 8000};
constexpr std::size_t kSyncEvery = std::size_t{4} * 1024 * 1024;

class PartOfAnImage : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    boot_ = readFile("/proc/sys/kernel/random/boot_id");
    filecalls::reset();
  }
  void TearDown() override { filecalls::reset(); }

  // What an earlier download left: so many bytes, and a note about them.
  void leave(std::size_t size, const Origin& origin = kOrigin, std::int64_t synced = 0,
             const std::string& boot = "") const {
    writeFile(kPart, std::string(size, 'p'));
    writeFile(kNote, noteText({origin, synced, boot.empty() ? boot_ : boot}));
    filecalls::reset();
  }
  static std::vector<std::string> files() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kDirectory)) {
      if (!entry.is_directory()) {
        names.push_back(entry.path().filename());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string boot_;
};

TEST_F(PartOfAnImage, IsTakenUpAsFarAsItCameInThisStartOfTheSystem) {
  leave(5000);

  const PartialImage image("wifiempfw", kUrl);

  EXPECT_EQ(image.size(), 5000);
  EXPECT_EQ(image.origin().validator, "\"tag\"");
}

TEST_F(PartOfAnImage, IsTakenUpAsFarAsItWasOnTheDiskAfterAnotherStart) {
  leave(5000, kOrigin, 4096, "another");

  const PartialImage image("wifiempfw", kUrl);

  EXPECT_EQ(image.size(), 4096);
  EXPECT_EQ(fs::file_size(kPart), 4096U);
}

TEST_F(PartOfAnImage, IsAskedForItsLastByteWhenItIsWhole) {
  leave(8000);

  EXPECT_EQ(PartialImage("wifiempfw", kUrl).size(), 7999);
}

TEST_F(PartOfAnImage, IsNotTakenUpWhenItIsLongerThanTheWhole) {
  leave(8001);

  const PartialImage image("wifiempfw", kUrl);

  EXPECT_EQ(image.size(), 0);
  EXPECT_FALSE(image.origin().canBeContinued());
}

TEST_F(PartOfAnImage, IsNotTakenUpFromAnotherAddress) {
  leave(5000);

  EXPECT_EQ(PartialImage("wifiempfw", "https://g/wifiempfw.img").size(), 0);
}

TEST_F(PartOfAnImage, IsNotTakenUpWithoutANote) {
  leave(5000);
  fs::remove(kNote);

  EXPECT_EQ(PartialImage("wifiempfw", kUrl).size(), 0);
  EXPECT_EQ(fs::file_size(kPart), 0U);
}

// Whose file it is decides who may write to it while it is read.
TEST_F(PartOfAnImage, OfAnotherUserIsReplaced) {
  leave(5000);
  filecalls::user = geteuid() + 4711;

  const PartialImage image("wifiempfw", kUrl);

  EXPECT_EQ(image.size(), 0);
  EXPECT_THAT(filecalls::made(), ::testing::Contains("unlink wifiempfw.img.part"));
}

TEST_F(PartOfAnImage, ThatIsNoOrdinaryFileIsReplaced) {
  ASSERT_EQ(mkfifo(kPart.c_str(), 0600), 0);

  EXPECT_EQ(PartialImage("wifiempfw", kUrl).size(), 0);

  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kPart)));
}

TEST_F(PartOfAnImage, NeverStandsBesideTheNoteOfAnother) {
  leave(5000);
  PartialImage image("wifiempfw", kUrl);
  filecalls::reset();

  image.begin({kUrl, "\"new\"", 100});

  ASSERT_GE(filecalls::made().size(), 2U);
  EXPECT_EQ(filecalls::made()[0], "unlink wifiempfw.img.part.info");
  EXPECT_EQ(filecalls::made()[1], "truncate wifiempfw.img.part");
  EXPECT_EQ(image.size(), 0);
  EXPECT_THAT(readFile(kNote), HasSubstr("new"));
}

TEST_F(PartOfAnImage, HasNoNoteWhenItCannotBeContinued) {
  leave(5000);
  PartialImage image("wifiempfw", kUrl);

  image.begin({kUrl, "", 100});

  EXPECT_THAT(files(), ElementsAre("wifiempfw.img.part"));
}

// Only what is on the disk is noted down as being there.
TEST_F(PartOfAnImage, IsPutOnTheDiskNowAndThenBeforeTheNoteSaysSo) {
  const Origin large{kUrl, "\"tag\"", std::int64_t{3} * kSyncEvery};
  PartialImage image("wifiempfw", kUrl);
  image.begin(large);
  filecalls::reset();

  image.append(std::string(kSyncEvery - 1, 'x').c_str(), kSyncEvery - 1);
  EXPECT_THAT(filecalls::made(), IsEmpty());
  image.append("x", 1);

  ASSERT_FALSE(filecalls::made().empty());
  EXPECT_EQ(filecalls::made().front(), "sync wifiempfw.img.part");
  const auto note = fwdownload::parseNote(readFile(kNote));
  ASSERT_TRUE(note);
  EXPECT_EQ(note->synced, static_cast<std::int64_t>(kSyncEvery));
  EXPECT_EQ(note->boot, boot_);
}

TEST_F(PartOfAnImage, IsNotPutOnTheDiskBetweenWhenItCannotBeContinued) {
  PartialImage image("wifiempfw", kUrl);
  image.begin({kUrl, "", 0});
  filecalls::reset();

  image.append(std::string(kSyncEvery, 'x').c_str(), kSyncEvery);

  EXPECT_THAT(filecalls::made(), IsEmpty());
}

TEST_F(PartOfAnImage, IsOnTheDiskBeforeItIsTheImage) {
  PartialImage image("wifiempfw", kUrl);
  image.begin({kUrl, "\"tag\"", 3});
  image.append("abc", 3);
  filecalls::reset();

  image.finish();
  image.publish();

  EXPECT_THAT(filecalls::made(),
              ElementsAre("sync wifiempfw.img.part", "unlink wifiempfw.img.part.info",
                          "rename wifiempfw.img.part wifiempfw.img", "sync appbinarymanager"));
  EXPECT_EQ(readFile(kDirectory + "wifiempfw.img"), "abc");
}

TEST_F(PartOfAnImage, SaysWhichStepFailed) {
  const struct {
    const char* call;
    const char* sentence;
  } failures[] = {{"sync wifiempfw.img.part", ".img.part cannot be written"},
                  {"unlink wifiempfw.img.part.info", ".part.info cannot be removed"},
                  {"rename wifiempfw.img.part", ".img cannot be replaced"},
                  {"sync appbinarymanager", ".img cannot be put on the disk"}};
  for (const auto& failure : failures) {
    PartialImage image("wifiempfw", kUrl);
    image.begin({kUrl, "\"tag\"", 3});
    image.append("abc", 3);
    filecalls::fails = failure.call;
    try {
      image.finish();
      image.publish();
      ADD_FAILURE() << failure.call;
    } catch (const fwdownload::Failure& thrown) {
      EXPECT_EQ(thrown.reason(), fwdownload::Reason::FileSystem);
      EXPECT_THAT(thrown.what(), HasSubstr(failure.sentence));
    }
  }
}

TEST_F(PartOfAnImage, SaysThatItsNoteCannotBeWritten) {
  PartialImage image("wifiempfw", kUrl);
  filecalls::fails = "rename wifiempfw.img.part.info.new";

  EXPECT_THAT(
      [&] {
        image.begin({kUrl, "\"tag\"", 3});
      },
      ::testing::ThrowsMessage<fwdownload::Failure>(HasSubstr(".img.part.info cannot be written")));
}

TEST_F(PartOfAnImage, SaysThatItCannotBeCutToWhatIsKnown) {
  leave(5000, kOrigin, 4096, "another");
  filecalls::fails = "truncate";

  EXPECT_THAT([] { PartialImage("wifiempfw", kUrl); },
              ::testing::ThrowsMessage<fwdownload::Failure>(HasSubstr(".img.part cannot be written")));
}

std::string publish(PartialImage& image) {
  try {
    image.publish();
  } catch (const fwdownload::Failure& failure) {
    return failure.what();
  }
  return "published";
}

TEST_F(PartOfAnImage, ThatChangedSinceItWasFinishedIsNotPublished) {
  const std::function<void()> changes[] = {
      [] { std::ofstream(kPart, std::ios::app) << "more"; },
      [] {
        const auto time = fs::last_write_time(kPart);
        std::ofstream(kPart, std::ios::app) << "more";
        fs::last_write_time(kPart, time);
      },
      [] { fs::last_write_time(kPart, fs::last_write_time(kPart) + std::chrono::seconds(1)); },
      [] { fs::last_write_time(kPart, fs::last_write_time(kPart) + std::chrono::nanoseconds(1)); },
      [] {
        const auto time = fs::last_write_time(kPart);
        fs::remove(kPart);
        writeFile(kPart, "abc");
        fs::last_write_time(kPart, time);
      },
      [] { fs::create_hard_link(kPart, kDirectory + "other"); },
      [] {
        fs::rename(kPart, kDirectory + "elsewhere");
        fs::create_symlink("elsewhere", kPart);
      },
      [] { fs::remove(kPart); }};
  for (const auto& change : changes) {
    PartialImage image("wifiempfw", kUrl);
    image.begin({kUrl, "\"tag\"", 3});
    image.append("abc", 3);
    image.finish();

    change();

    EXPECT_THAT(publish(image), HasSubstr(".img.part was changed by another process"));
    EXPECT_FALSE(exists(kDirectory + "wifiempfw.img"));
    image.discard();
    fs::remove(kDirectory + "other");
  }
}

// Another file takes the part's name right before the image gets its own.
TEST_F(PartOfAnImage, ThatIsExchangedAtTheLastMomentDoesNotStay) {
  PartialImage image("wifiempfw", kUrl);
  image.begin({kUrl, "\"tag\"", 3});
  image.append("abc", 3);
  image.finish();
  filecalls::before = [](const std::string& call) {
    if (call.rfind("rename wifiempfw.img.part ", 0) == 0) {
      fs::remove(kPart);
      writeFile(kPart, "xyz");
    }
  };

  EXPECT_THAT(publish(image), HasSubstr(".img was changed by another process"));

  EXPECT_FALSE(exists(kDirectory + "wifiempfw.img"));
}

TEST_F(PartOfAnImage, IsReadWhereItWasWritten) {
  PartialImage image("wifiempfw", kUrl);
  image.begin({kUrl, "\"tag\"", 3});
  image.append("abc", 3);

  const int file = image.finish();

  char bytes[4] = {};
  EXPECT_EQ(pread(file, bytes, sizeof bytes, 0), 3);
  EXPECT_STREQ(bytes, "abc");
}

TEST_F(PartOfAnImage, LeavesNothingWhenItIsDiscarded) {
  PartialImage image("wifiempfw", kUrl);
  image.begin(kOrigin);
  image.append("abc", 3);

  image.discard();

  EXPECT_THAT(files(), IsEmpty());
  EXPECT_EQ(image.size(), 0);
}

// A note without its part would be worth nothing; a part without its note is emptied.
TEST_F(PartOfAnImage, LosesItsNoteFirstWhenItIsDiscarded) {
  PartialImage image("wifiempfw", kUrl);
  image.begin(kOrigin);
  filecalls::reset();

  image.discard();

  EXPECT_THAT(filecalls::made(), ElementsAre("unlink wifiempfw.img.part.info", "unlink wifiempfw.img.part"));
}

}  // namespace
