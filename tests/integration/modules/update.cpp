// SPDX-License-Identifier: Apache-2.0
// Updates of one component: what gets active, and what leaves the old firmware.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>
#include <system_error>
#include <thread>

#include "module-test.h"

namespace {

class ModuleUpdate : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);
    forgetProgress("tunerfw");
  }

  void expectOldFirmware() const {
    EXPECT_EQ(tuner_.activeVersion(), "1.0.0");
    EXPECT_TRUE(flashContent("tunerfw") == oldImage_);
    EXPECT_FALSE(exists(newFlash_));
    EXPECT_EQ(tuner_.progress(), 0u);
  }

  const LoadedModule tuner_{modulePath("libtuner.so")};
  const std::string oldImage_ = makeImage(100000, 1);
  const std::string newImage_ = makeImage(300000, 2);
  const std::string newFlash_ = std::string(kComponents) + "tunerfw.flash.new";
};

// A small disk of its own for the components; gone at the end.
class SmallDisk {
 public:
  explicit SmallDisk(const char* options) {
    if (::mount("tmpfs", kComponents, "tmpfs", 0, options) != 0) {
      throw std::system_error(errno, std::generic_category(), "mount");
    }
  }
  ~SmallDisk() { ::umount2(kComponents, MNT_DETACH); }
};

TEST_F(ModuleUpdate, MakesTheNewFirmwareActive) {
  const int result = updateFrom(tuner_, "2.0.0", newImage_);

  EXPECT_EQ(result, 0);
  EXPECT_EQ(tuner_.activeVersion(), "2.0.0");
  EXPECT_TRUE(flashContent("tunerfw") == newImage_);
  EXPECT_FALSE(exists(newFlash_));
  EXPECT_EQ(tuner_.progress(), 100u);
}

TEST_F(ModuleUpdate, WritesImagesOfEverySizeAroundABlock) {
  for (const std::size_t size : {1u, 65535u, 65536u, 65537u, 131072u}) {
    const std::string image = makeImage(size, 3);

    EXPECT_EQ(updateFrom(tuner_, "2.0.0", image), 0) << size;
    EXPECT_TRUE(flashContent("tunerfw") == image) << size;
  }
}

TEST_F(ModuleUpdate, WritesAnImageFromMemory) {
  const int result = tuner_.updateFromMemory("3.0", newImage_);

  EXPECT_EQ(result, 0);
  EXPECT_EQ(tuner_.activeVersion(), "3.0");
  EXPECT_TRUE(flashContent("tunerfw") == newImage_);
  EXPECT_EQ(tuner_.progress(), 100u);
}

TEST_F(ModuleUpdate, RefusesMemoryThatIsNoImage) {
  const auto update = tuner_.find<decltype(doUpdate_decryption)>("doUpdate_decryption");
  const unsigned char data[] = {1};
  tuner_.need("3.0");

  EXPECT_EQ(update(nullptr, 1), -EINVAL);
  EXPECT_EQ(update(data, -1), -EINVAL);
  EXPECT_EQ(update(data, 0), -ENODATA);
  EXPECT_EQ(tuner_.activeVersion(), "1.0.0");
  EXPECT_TRUE(flashContent("tunerfw") == oldImage_);
}

TEST_F(ModuleUpdate, WritesTheVersionStatedBesideTheImage) {
  writeFile(kImagePath, newImage_);
  writeFile(kInformationPath, R"({"version": "2.0.0"})");
  tuner_.need("2.0.0");
  std::thread([this] { tuner_.need("2.5.0"); }).join();
  tuner_.need("2.6.0");

  const int result = tuner_.find<decltype(doUpdate)>("doUpdate")(kImagePath, crcOf(newImage_));

  EXPECT_EQ(result, 0);
  EXPECT_EQ(tuner_.activeVersion(), "2.0.0");
}

TEST_F(ModuleUpdate, WritesTheVersionThatThePackagesThreadAskedFor) {
  tuner_.need("3.0");
  std::thread([this] { tuner_.need("3.5"); }).join();

  const auto update = tuner_.find<decltype(doUpdate_decryption)>("doUpdate_decryption");
  const int result =
      update(reinterpret_cast<const unsigned char*>(newImage_.data()), static_cast<int>(newImage_.size()));

  EXPECT_EQ(result, 0);
  EXPECT_EQ(tuner_.activeVersion(), "3.0");
}

TEST_F(ModuleUpdate, NeedsAnImageWithAVersion) {
  struct Case {
    const char* information;
    int error;
  };
  const Case cases[] = {
      {"{", EBADMSG},
      {"[]", EBADMSG},
      {R"({"version": {}})", EBADMSG},
      {R"({"version": "new"})", EINVAL},
      {R"({"version": ""})", EINVAL},
  };
  writeFile(kImagePath, newImage_);
  const auto update = tuner_.find<decltype(doUpdate)>("doUpdate");
  tuner_.need("2.0.0");

  std::filesystem::remove(kInformationPath);
  EXPECT_EQ(update(kImagePath, crcOf(newImage_)), -ENOENT);
  for (const Case& one : cases) {
    writeFile(kInformationPath, one.information);
    EXPECT_EQ(update(kImagePath, crcOf(newImage_)), -one.error) << one.information;
    expectOldFirmware();
  }
}

TEST_F(ModuleUpdate, NeedsAPackageWhoseVersionWasAskedFor) {
  LoadedModule panel(modulePath("libpanel.so"));
  const unsigned char data[] = {1};

  const int result = panel.find<decltype(doUpdate_decryption)>("doUpdate_decryption")(data, 1);

  EXPECT_EQ(result, -EINVAL);
  EXPECT_EQ(panel.activeVersion(), "0.0.0");
}

TEST_F(ModuleUpdate, ComparesVersionsWithTheActiveOne) {
  EXPECT_EQ(tuner_.need("1.0.1"), 1);
  EXPECT_EQ(tuner_.need("1.10"), 1);
  EXPECT_EQ(tuner_.need("99999999999999999999999"), 1);
  EXPECT_EQ(tuner_.need("1.0.0"), 0);
  EXPECT_EQ(tuner_.need("1"), 0);
  EXPECT_EQ(tuner_.need("0.9.9"), 0);
  EXPECT_EQ(tuner_.need("0000"), 0);
  EXPECT_EQ(tuner_.need(""), -EINVAL);
  EXPECT_EQ(tuner_.need("2.0-rc1"), -EINVAL);
  EXPECT_EQ(tuner_.need(std::string(127, '9')), 1);
  EXPECT_EQ(tuner_.need(std::string(128, '9')), -EINVAL);
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheImageIsBad) {
  const unsigned long crc = crcOf(newImage_);
  writeFile(kImagePath, newImage_);
  writeFile("/lib/firmware/ext/empty.bin", "");
  writeFile("/lib/firmware/ext/short.bin", newImage_.substr(0, 200000));
  std::string corrupt = newImage_;
  corrupt[150000] = static_cast<char>(corrupt[150000] ^ 1);
  writeFile("/lib/firmware/ext/corrupt.bin", corrupt);
  ASSERT_EQ(::mkfifo("/lib/firmware/ext/fifo.bin", 0644), 0);
  struct Case {
    const char* path;
    unsigned long crc;
    int error;
  };
  const Case cases[] = {
      {"/lib/firmware/ext/missing.bin", crc, ENOENT},
      {"libtuner", 0, ENOENT},
      {"/lib/firmware/ext/empty.bin", 0, ENODATA},
      {"/lib/firmware/ext/short.bin", crc, EBADMSG},
      {"/lib/firmware/ext/corrupt.bin", crc, EBADMSG},
      {kImagePath, crc ^ 1, EBADMSG},
      {kImagePath, 0, EBADMSG},
      {"/lib/firmware/ext", crc, EISDIR},
      {"/lib/firmware/ext/fifo.bin", crc, EINVAL},
      {"", crc, ENOENT},
  };

  for (const Case& one : cases) {
    EXPECT_EQ(tuner_.update("2.0.0", one.path, one.crc), -one.error) << one.path;
    EXPECT_EQ(errno, one.error) << one.path;
    expectOldFirmware();
  }
  EXPECT_EQ(tuner_.find<decltype(doUpdate)>("doUpdate")(nullptr, crc), -EINVAL);
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheImageCannotBeRead) {
  writeFile(kImagePath, newImage_);
  ASSERT_EQ(::chmod(kImagePath, 0), 0);
  const WithoutFileOverride withoutFileOverride;

  EXPECT_EQ(tuner_.update("2.0.0", kImagePath, crcOf(newImage_)), -EACCES);
  expectOldFirmware();
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheHardwareFails) {
  for (const int percent : {0, 1, 30, 50, 51, 75, 99, 100}) {
    describeComponent("tunerfw", "fail_at_percent = " + std::to_string(percent));

    EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -EIO) << percent;
    EXPECT_EQ(errno, EIO) << percent;
    expectOldFirmware();
  }

  describeComponent("tunerfw", "");
  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), 0);
}

TEST_F(ModuleUpdate, RefusesAComponentDescriptionThatItDoesNotUnderstand) {
  for (const char* text : {"speed = 3", "fail_at_percent = 101", "fail_at_percent = -1", "fail_at_percent =",
                           "fail_at_percent", "fail_at_percent = 5 percent", "expected_time = 2147483648",
                           "write_kib_per_second = 99999999999", "= 5", "fail_at_percent = 0x10"}) {
    describeComponent("tunerfw", std::string("# a comment\n\n") + text + "\n");

    EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -EINVAL) << text;
    EXPECT_NE(lastJournalLine().find('"' + std::string(text) + '"'), std::string::npos) << lastJournalLine();
    EXPECT_EQ(tuner_.expectedTime(), -EINVAL) << text;
    expectOldFirmware();
  }
}

TEST_F(ModuleUpdate, UnderstandsAComponentDescription) {
  describeComponent("tunerfw", "# slow\n\n  write_kib_per_second=4096 \n\texpected_time =  17\r\n");

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), 0);
  EXPECT_EQ(tuner_.expectedTime(), 17);
}

TEST_F(ModuleUpdate, WritesAsFastAsTheComponentAndNoFaster) {
  describeComponent("tunerfw", "write_kib_per_second = 1000\n");
  const auto start = std::chrono::steady_clock::now();

  ASSERT_EQ(updateFrom(tuner_, "2.0.0", makeImage(256000, 4)), 0);

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheDiskIsTooSmall) {
  const SmallDisk disk("size=300k");
  ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -ENOSPC);
  EXPECT_EQ(errno, ENOSPC);
  expectOldFirmware();
  EXPECT_NE(lastJournalLine().find(" fail version=2.0.0 result=-28 "), std::string::npos)
      << lastJournalLine();
  EXPECT_EQ(updateFrom(tuner_, "2.0.0", makeImage(100000, 5)), 0);
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheDiskIsFull) {
  const SmallDisk disk("size=300k");
  ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);
  std::ofstream filler(std::string(kComponents) + "filler");
  filler << makeImage(300000, 6);
  filler.close();

  EXPECT_EQ(tuner_.update("2.0.0", kImagePath, crcOf(oldImage_)), -ENOSPC);
  EXPECT_EQ(errno, ENOSPC);
  expectOldFirmware();
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareWhenTheDiskHasNoFilesLeft) {
  const SmallDisk disk("size=2m,nr_inodes=5");
  ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);
  writeFile(std::string(kComponents) + "last", "");

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -ENOSPC);
  expectOldFirmware();
}

TEST_F(ModuleUpdate, KeepsTheOldFirmwareOnAReadOnlyDisk) {
  const SmallDisk disk("size=2m");
  ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);
  ASSERT_EQ(::mount(nullptr, kComponents, nullptr, MS_REMOUNT | MS_RDONLY, "size=2m"), 0);

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -EROFS);
  EXPECT_EQ(tuner_.activeVersion(), "1.0.0");
  EXPECT_TRUE(flashContent("tunerfw") == oldImage_);
}

TEST_F(ModuleUpdate, OverwritesWhatAnInterruptedUpdateLeft) {
  writeFile(newFlash_, makeImage(500000, 7));

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), 0);
  EXPECT_TRUE(flashContent("tunerfw") == newImage_);
  EXPECT_FALSE(exists(newFlash_));
}

TEST_F(ModuleUpdate, DoesNotFollowALinkInPlaceOfItsNewFile) {
  writeFile("/opt/media/victim", "precious");
  std::filesystem::create_symlink("/opt/media/victim", newFlash_);

  EXPECT_EQ(updateFrom(tuner_, "2.0.0", newImage_), -ELOOP);
  EXPECT_EQ(readFile("/opt/media/victim"), "precious");
}

TEST_F(ModuleUpdate, NamesACorruptFlashAndRepairsIt) {
  const std::string flash = std::string(kComponents) + "tunerfw.flash";
  const std::string whole = readFile(flash);
  std::string wrongMagic = whole;
  wrongMagic[0] = 'X';
  std::string wrongVersion = whole;
  wrongVersion[24] = '9';
  const std::string corrupted[] = {"",          whole.substr(0, 255), whole.substr(0, whole.size() - 1),
                                   whole + "x", wrongMagic,           wrongVersion};

  for (const std::string& content : corrupted) {
    writeFile(flash, content);

    EXPECT_EQ(tuner_.activeVersion(), "error -" + std::to_string(EBADMSG));
    EXPECT_EQ(tuner_.need("0.0.1"), 1);
    EXPECT_EQ(updateFrom(tuner_, "0.0.1", newImage_), 0);
    EXPECT_EQ(tuner_.activeVersion(), "0.0.1");
  }
}

TEST_F(ModuleUpdate, ReportsExpectedTimes) {
  const LoadedModule panel(modulePath("libpanel.so"));
  EXPECT_EQ(panel.expectedTime(), 120);

  ASSERT_EQ(updateFrom(panel, "1.0", makeImage(640 * 1024, 8)), 0);

  EXPECT_EQ(panel.expectedTime(), 11);
}

TEST_F(ModuleUpdate, LeavesOneJournalLineForEachEvent) {
  std::filesystem::remove(std::string(kComponents) + "journal.log");
  char data[] = "FACTORY_AUTOMATION";
  ASSERT_EQ(tuner_.setContext("libtuner", CALLER_FACTORY, data), 0);

  ASSERT_EQ(updateFrom(tuner_, "2.0.0", newImage_), 0);
  ASSERT_EQ(tuner_.update("2.1", "/lib/firmware/ext/gone.bin", 0), -ENOENT);
  ASSERT_EQ(tuner_.find<decltype(allUpdateDone)>("allUpdateDone")(), 0);

  const std::string prefix =
      "\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}Z " + std::to_string(::getpid()) + " tunerfw ";
  const std::string expected[] = {
      "start version=2\\.0\\.0 library=libtuner caller=0 data=FACTORY_AUTOMATION",
      "finish version=2\\.0\\.0 result=0",
      "start version=2\\.1 library=libtuner caller=0 data=FACTORY_AUTOMATION",
      "fail version=2\\.1 result=-2 reason=/lib/firmware/ext/gone\\.bin: No such file or directory",
      "all-done",
  };
  const std::vector<std::string> lines = journal();
  ASSERT_EQ(lines.size(), std::size(expected));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(prefix + expected[i]))) << lines[i];
  }
}

TEST_F(ModuleUpdate, KeepsCallersFromWritingJournalLinesOfTheirOwn) {
  std::string data = "USB\n2024-01-01T00:00:00Z 1 tunerfw all-done" + std::string(200, 'x');
  ASSERT_EQ(tuner_.setContext("libtuner", CALLER_DEBUG, data.data()), 0);
  const std::size_t before = journal().size();

  ASSERT_EQ(updateFrom(tuner_, "2.0.0", newImage_), 0);

  EXPECT_EQ(journal().size(), before + 2);
  const std::string kept = "data=USB?" + data.substr(4, 127 - 4);
  const std::string start = journal().at(before);
  EXPECT_EQ(start.substr(start.size() - kept.size()), kept);
}

}  // namespace
