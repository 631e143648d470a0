// SPDX-License-Identifier: Apache-2.0
// Encrypted packages on a USB drive: signature, listing, update.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "allocation-faults.h"
#include "fault-injection.h"
#include "fw-update-cipher.h"
#include "fw-update-symbol-manager.h"
#include "library-test.h"
#include "scripted-verifier.h"
#include "usb-package.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr const char* kDrive = "/opt/media/USBDriveA/";
const std::string kPackage = "/opt/media/USBDriveA/abc.bin";
const std::string kVerifier = "/usr/lib/libkZAQUser.so";

const std::string kVerified = "verifyFile(0, \"" + kPackage + "\", \"UserCaller\")";
const std::string kSigned = "[zaq][UserCaller] the file is signed successfully : " + kPackage + "\n";
const std::string kNotSigned = "[zaq][UserCaller] the file is NOT signed!! : " + kPackage + "\n";
const std::string kNoVerifier = "[zaq][UserCaller] pHandle Error: " + kVerifier +
                                ": cannot open shared object file: No such file or directory\n";
const std::string kSetContext = "libabc.setContext(\"libabc\", 3, \"\")";
const std::string kStart = "========== [ abc update start ] ==========";
const std::string kSucceeded = "========== [ abc update succeeded ] ==========";
const std::string kNoData = "Error: Decryption data is null";

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol.cpp " + function + " " + text;
}

std::string managerSaid(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol-manager.cpp " + function + " " + text;
}

std::string versionCall(const std::string& version) {
  return "libabc.checkVersion(\"" + version + "\", -1)";
}

// Whether this process has a file on the drive or beside it open.
bool packageIsOpen() {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone).string().rfind("/opt/media/", 0) == 0) {
      return true;
    }
  }
  return false;
}

class UsbPackage : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    scripted::setVerifierAnswer(nullptr);
    scripted::installVerifier();
    fs::create_directories(kDrive);
    fs::create_directories(kControls);
  }
  void TearDown() override {
    faults::failingCallocSize = 0;
    EXPECT_FALSE(packageIsOpen()) << "the package is closed on every way out";
  }

  static int list(FWUpdateSymbol& symbol) {
    return symbol.getNeedUpdateList(usb::bytesOf(usb::key()), kDrive);
  }
  static int update(FWUpdateSymbol& symbol) { return symbol.updateUSB(usb::bytesOf(usb::key()), kDrive); }

  // A bound module, its package on the drive.
  FWUpdateSymbol boundWithPackage(const std::string& version = "2.0", const std::string& image = "image") {
    FWUpdateSymbol symbol = bound();
    writeFile(kPackage, usb::package(version, image));
    return symbol;
  }

  // Collects what the module gets.
  void collectImages() {
    scripted::module("libabc").doUpdateDecryption = [this](const unsigned char* data, int length) {
      images.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
      return 0;
    };
  }

  std::vector<std::string> images;
};

class Signature : public UsbPackage {};
class UsbListing : public UsbPackage {};
class UsbUpdate : public UsbPackage {};

}  // namespace

// ---- Signature ----------------------------------------------------------------------

TEST_F(Signature, IsAskedOfTheVerifierWithPathAndCaller) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);

  EXPECT_EQ(recording::calls()[0], kVerified);
  EXPECT_EQ(recording::messages()[0], said("zaq_verify", kSigned));
  EXPECT_EQ(recording::logLines()[0].format, "%s: %s(%d) > [zaq][%s] the file is signed successfully : %s\n");
  EXPECT_EQ(recording::traceFormats()[0], "[zaq][%s] the file is signed successfully : %s\n");
  EXPECT_EQ(recording::traceRecords()[0].payload,
            "\x0AUserCaller" + std::string(1, static_cast<char>(kPackage.size())) + kPackage);
}

TEST_F(Signature, IsAcceptedWithAnyAnswerButZero) {
  FWUpdateSymbol symbol = boundWithPackage();
  for (const int answer : {1, 2, -1}) {
    scripted::setVerifierAnswer([answer](const std::string&) { return answer; });
    recording::reset();

    EXPECT_EQ(list(symbol), 1);

    EXPECT_EQ(recording::texts()[0], kSigned);
  }
}

TEST_F(Signature, IsRejectedByContent) {
  FWUpdateSymbol symbol = bound();
  std::string package = usb::package("2.0", "image");
  package[package.size() - usb::kTrailerSize] = 'X';
  writeFile(kPackage, package);

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::everything(),
              ElementsAre(kVerified, "log: " + kNotSigned, "log: Error: " + kPackage + " is NOT signed"));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("zaq_verify", kNotSigned),
                          said("getNeedUpdateList", "Error: " + kPackage + " is NOT signed")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("[zaq][%s] the file is NOT signed!! : %s\n", "Error: %s is NOT signed"));
}

TEST_F(Signature, IsAcceptedWithoutAVerifierAndSaidEachTime) {
  fs::remove(kVerifier);
  FWUpdateSymbol symbol = boundWithPackage();
  faults::reset();

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(faults::libraryCalls(), Each("dlopen(" + kVerifier + ")")) << "nothing to close";
  EXPECT_THAT(recording::messages(), Contains(said("zaq_verify", kNoVerifier)).Times(3));
  EXPECT_THAT(recording::traceFormats(), Contains("[zaq][%s] pHandle Error: %s\n").Times(3));
  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("signed successfully"))));
}

TEST_F(Signature, IsCheckedOnceAVerifierIsThere) {
  fs::remove(kVerifier);
  FWUpdateSymbol symbol = boundWithPackage();
  ASSERT_EQ(list(symbol), 1);
  scripted::installVerifier();
  scripted::setVerifierAnswer([](const std::string&) { return 0; });

  EXPECT_EQ(list(symbol), -1) << "the failure was not remembered";
}

TEST_F(Signature, IsAcceptedWithABrokenVerifier) {
  writeFile(kVerifier, "no library");
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);

  EXPECT_EQ(recording::messages()[0],
            said("zaq_verify", "[zaq][UserCaller] pHandle Error: " + kVerifier + ": file too short\n"));
}

TEST_F(Signature, IsAcceptedWithAVerifierThatHasNoEntryPoint) {
  scripted::installVerifier(scripted::Verifier::WithoutEntryPoint);
  FWUpdateSymbol symbol = boundWithPackage();
  const std::string text = "[zaq][UserCaller] dlsym Error: " + kVerifier + ": undefined symbol: verifyFile\n";
  faults::reset();

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(list(symbol), 1);

  EXPECT_THAT(faults::libraryCalls(), ElementsAre("dlopen(" + kVerifier + ")", "dlclose(" + kVerifier + ")",
                                                  "dlopen(" + kVerifier + ")", "dlclose(" + kVerifier + ")"));

  EXPECT_THAT(recording::messages(), Contains(said("zaq_verify", text)).Times(2));
  EXPECT_THAT(recording::traceFormats(), Contains("[zaq][%s] dlsym Error: %s\n").Times(2));
}

TEST_F(Signature, IsAcceptedWithAnEntryPointAtNull) {
  scripted::installVerifier(scripted::Verifier::NullEntryPoint);
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);

  EXPECT_THAT(recording::texts(), IsEmpty());
}

TEST_F(Signature, IsCheckedWithoutOpeningTheVerifierAgain) {
  FWUpdateSymbol symbol = boundWithPackage();
  faults::reset();
  ASSERT_EQ(list(symbol), 1);
  EXPECT_THAT(faults::libraryCalls(), ElementsAre("dlopen(" + kVerifier + ")", "dlclose(" + kVerifier + ")"));
  faults::reset();
  fs::remove(kVerifier);
  scripted::setVerifierAnswer([](const std::string&) { return 0; });
  recording::reset();

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kVerified)) << "it is still in memory";
  EXPECT_THAT(faults::libraryCalls(), IsEmpty());
}

// Mostly for a thread checker: nobody has asked the verifier before.
TEST_F(Signature, IsCheckedForSeveralThreadsAtOnce) {
  std::vector<FWUpdateSymbol> symbols(2, boundWithPackage());
  std::atomic<int> ready{0};
  std::atomic<int> accepted{0};
  std::vector<std::thread> threads;

  for (FWUpdateSymbol& symbol : symbols) {
    threads.emplace_back([&] {
      for (++ready; ready < 2;) {
        std::this_thread::yield();
      }
      accepted += list(symbol);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(accepted, 2);
  const auto calls = recording::calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), kVerified), 2);
}

// ---- Listing ------------------------------------------------------------------------

TEST_F(UsbListing, MarksAModuleWhosePackageIsNewer) {
  FWUpdateSymbol symbol = boundWithPackage("2.0");
  scripted::module("libabc").expectedTime = 45;

  EXPECT_EQ(list(symbol), 1);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 45U);
  EXPECT_THAT(recording::everything(), ElementsAre(kVerified, "log: " + kSigned, kSetContext,
                                                   versionCall("2.0"), "libabc.getExpectedTime()"));
}

TEST_F(UsbListing, IsRefusedSilentlyForAModuleWithoutPackage) {
  FWUpdateSymbol extension = bound("libEXT-abc");
  FWUpdateSymbol unbound("libabc");
  writeFile(std::string(kDrive) + ".bin", usb::package("2.0", "image"));

  EXPECT_EQ(list(extension), -1);
  EXPECT_EQ(list(unbound), -1);
  EXPECT_EQ(extension.getNeedUpdateList(nullptr, nullptr), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UsbListing, RefusesAMissingKeyBeforeAMissingFolder) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(symbol.getNeedUpdateList(nullptr, nullptr), -1);
  EXPECT_EQ(symbol.getNeedUpdateList(nullptr, kDrive), -1);
  EXPECT_EQ(symbol.getNeedUpdateList(usb::bytesOf(usb::key()), nullptr), -1);

  EXPECT_THAT(recording::messages(), ElementsAre(said("getNeedUpdateList", "Error: ckey  is nullptr"),
                                                 said("getNeedUpdateList", "Error: ckey  is nullptr"),
                                                 said("getNeedUpdateList", "Error: image_path is nullptr")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: ckey  is nullptr", "Error: ckey  is nullptr",
                                                     "Error: image_path is nullptr"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(UsbListing, ReportsAMissingPackage) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::everything(), ElementsAre("log: Error: " + kPackage + " open fail"));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("getNeedUpdateList", "Error: " + kPackage + " open fail")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: %s open fail"));
}

TEST_F(UsbListing, AddsNoSeparatorToTheFolder) {
  FWUpdateSymbol symbol = bound();
  writeFile("/opt/media/driveabc.bin", usb::package("2.0", "image"));

  EXPECT_EQ(symbol.getNeedUpdateList(usb::bytesOf(usb::key()), "/opt/media/drive"), 1);
  EXPECT_EQ(symbol.getNeedUpdateList(usb::bytesOf(usb::key()), "/opt/media/USBDriveA"), -1);

  EXPECT_EQ(recording::texts().back(), "Error: /opt/media/USBDriveAabc.bin open fail");
}

TEST_F(UsbListing, ReportsAnUnreadablePackage) {
  FWUpdateSymbol symbol = boundWithPackage();
  fs::permissions(kPackage, fs::perms::none);
  const WithoutFileOverride asAnyone;

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre("Error: " + kPackage + " open fail"));
}

TEST_F(UsbListing, IgnoresAFailingSetContext) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").setContextResult = -1;

  EXPECT_EQ(list(symbol), 1);
}

TEST_F(UsbListing, ClosesThePackageBeforeItAsksTheModule) {
  FWUpdateSymbol symbol = boundWithPackage();
  bool openInSetContext = false;
  bool openInCheckVersion = true;
  scripted::module("libabc").setContext = [&](const char*, int, char*) {
    openInSetContext = packageIsOpen();
    return 0;
  };
  scripted::module("libabc").checkVersion = [&](const char*, int* need) {
    openInCheckVersion = packageIsOpen();
    *need = 1;
    return 0;
  };

  EXPECT_EQ(list(symbol), 1);

  EXPECT_TRUE(openInSetContext);
  EXPECT_FALSE(openInCheckVersion);
}

TEST_F(UsbListing, HandsOverAVersionThatFillsItsBlock) {
  FWUpdateSymbol symbol = boundWithPackage(std::string(64, 'v'), std::string(64, 'i'));

  EXPECT_EQ(list(symbol), 1);

  EXPECT_THAT(recording::calls(), Contains(versionCall(std::string(64, 'v'))));
}

TEST_F(UsbListing, HandsOverTheWholeVersionBlock) {
  const std::string block = std::string("2.0\0hidden", 10) + std::string(54, 'x');
  FWUpdateSymbol symbol = boundWithPackage(block, "image");
  std::string seen;
  scripted::module("libabc").checkVersion = [&seen](const char* version, int* need) {
    seen.assign(version, 65);
    *need = 1;
    return 0;
  };

  EXPECT_EQ(list(symbol), 1);

  EXPECT_EQ(seen, block + std::string(1, '\0'));
}

TEST_F(UsbListing, ReportsAFailedComparisonAndKeepsTheMark) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").expectedTime = 45;
  ASSERT_EQ(list(symbol), 1);
  scripted::module("libabc").checkVersionResult = 4;
  scripted::module("libabc").expectedTime = 99;
  recording::reset();

  EXPECT_EQ(list(symbol), -1);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 45U);
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("zaq_verify", kSigned),
                          said("getNeedUpdateList", "Error: abc Firmware CheckVersion Fail")));
  EXPECT_EQ(recording::traceFormats().back(), "Error: %s Firmware CheckVersion Fail");
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext, versionCall("2.0")));
}

TEST_F(UsbListing, AnswersZeroWithoutAnExpectedTimeAndKeepsTheMark) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").expectedTime = 45;
  ASSERT_EQ(list(symbol), 1);
  scripted::module("libabc").expectedTimeResult = -1;
  scripted::module("libabc").expectedTime = 99;
  scripted::module("libabc").need = 0;
  recording::reset();

  EXPECT_EQ(list(symbol), 0);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 45U);
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said("zaq_verify", kSigned), said("getNeedUpdateList", "Error: abc getExpectedTime Fail")));
  EXPECT_EQ(recording::traceFormats().back(), "Error: %s getExpectedTime Fail");
}

TEST_F(UsbListing, AnswersZeroForAModuleThatGivesNoTime) {
  scripted::installModule("libdef", "getExpectedTime");
  FWUpdateSymbol symbol("libdef");
  symbol.loadSymbol("libdef");
  recording::reset();
  writeFile(kPackage, usb::package("2.0", "image"));

  EXPECT_EQ(list(symbol), 0);

  EXPECT_FALSE(symbol.getNeedUpdate());
  EXPECT_EQ(recording::texts().back(), "Error: abc getExpectedTime Fail");
}

TEST_F(UsbListing, StoresWhateverTheModuleNeeds) {
  FWUpdateSymbol symbol = boundWithPackage();
  const std::pair<int, bool> cases[] = {{1, true}, {0, false}, {2, true}, {-3, true}, {-1, true}};

  for (const auto& [need, marked] : cases) {
    scripted::module("libabc").need = need;

    EXPECT_EQ(list(symbol), need);
    EXPECT_EQ(symbol.getNeedUpdate(), marked) << need;
  }
}

TEST_F(UsbListing, HandsGarbageToTheModuleForAWrongKey) {
  const std::string package = usb::package("2.0", "image");
  FWUpdateSymbol symbol = boundWithPackage();
  const std::string wrongKey = usb::noise(32, 5);
  std::string seen;
  scripted::module("libabc").checkVersion = [&seen](const char* version, int*) {
    seen.assign(version, 64);
    return std::strcmp(version, "2.0") == 0 ? 0 : -1;
  };

  EXPECT_EQ(symbol.getNeedUpdateList(usb::bytesOf(wrongKey), kDrive), -1);

  EXPECT_EQ(seen, usb::decrypt(package.substr(16, package.size() - 534), wrongKey).substr(0, 64));
  EXPECT_EQ(recording::texts().back(), "Error: abc Firmware CheckVersion Fail");
  EXPECT_FALSE(symbol.getNeedUpdate());
}

TEST_F(UsbListing, LeavesTheDecryptedBytesBehind) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "image");

  EXPECT_EQ(list(symbol), 1);

  ASSERT_NE(cipher_buf_all, nullptr);
  EXPECT_STREQ(reinterpret_cast<const char*>(cipher_buf_all), "2.0");
  std::free(cipher_buf_all);
}

// ---- Update -------------------------------------------------------------------------

TEST_F(UsbUpdate, HandsTheDecryptedImageToTheModule) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "the firmware image");
  collectImages();

  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(images, ElementsAre("the firmware image"));
  EXPECT_THAT(recording::everything(),
              ElementsAre(kVerified, "log: " + kSigned, kSetContext, versionCall("2.0"), "log: " + kStart,
                          "libabc.doUpdate_decryption(18)", "log: " + kSucceeded));
  EXPECT_THAT(recording::messages(), ElementsAre(said("zaq_verify", kSigned), said("updateUSB", kStart),
                                                 said("updateUSB", kSucceeded)));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("[zaq][%s] the file is signed successfully : %s\n",
                                                     "========== [ %s update start ] ==========",
                                                     "========== [ %s update succeeded ] =========="));
}

TEST_F(UsbUpdate, HandsOverALargeImage) {
  const std::string image = usb::noise(500000);
  FWUpdateSymbol symbol = boundWithPackage("2.0", image);
  collectImages();

  EXPECT_EQ(update(symbol), 0);

  ASSERT_EQ(images.size(), 1U);
  EXPECT_TRUE(images[0] == image);
}

TEST_F(UsbUpdate, HandsOverAnEmptyImage) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "");

  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(recording::calls(), Contains("libabc.doUpdate_decryption(0)"));
}

TEST_F(UsbUpdate, HandsOverThePlaceBehindTheVersionBlock) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "image");
  const unsigned char* seen = nullptr;
  scripted::module("libabc").doUpdateDecryption = [&seen](const unsigned char* data, int) {
    seen = data;
    return 0;
  };

  EXPECT_EQ(update(symbol), 0);

  EXPECT_EQ(seen, cipher_buf_all + 64) << "the buffer is kept";
  EXPECT_EQ(std::memcmp(seen, "image", 5), 0);
  std::free(cipher_buf_all);
}

TEST_F(UsbUpdate, NeedsNoListingBefore) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(update(symbol), 0);

  EXPECT_FALSE(symbol.getNeedUpdate()) << "and marks nothing";
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 0U);
}

TEST_F(UsbUpdate, RefusesAMissingKeyBeforeAMissingFolder) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(symbol.updateUSB(nullptr, nullptr), -1);
  EXPECT_EQ(symbol.updateUSB(nullptr, kDrive), -1);
  EXPECT_EQ(symbol.updateUSB(usb::bytesOf(usb::key()), nullptr), -1);

  EXPECT_THAT(recording::messages(), ElementsAre(said("updateUSB", "Error: ckey  is nullptr"),
                                                 said("updateUSB", "Error: ckey  is nullptr"),
                                                 said("updateUSB", "Error: image_path is nullptr")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: ckey  is nullptr", "Error: ckey  is nullptr",
                                                     "Error: image_path is nullptr"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(UsbUpdate, ReportsAMissingPackage) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::everything(), ElementsAre("log: Error: " + kPackage + " file open"));
  EXPECT_THAT(recording::messages(), ElementsAre(said("updateUSB", "Error: " + kPackage + " file open")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: %s file open"));
}

TEST_F(UsbUpdate, ReportsAPackageThatIsNotSigned) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::setVerifierAnswer([](const std::string&) { return 0; });

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::everything(), ElementsAre(kVerified, "log: " + kNotSigned,
                                                   "log: Error: " + kPackage + " file is NOT signed"));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("zaq_verify", kNotSigned),
                          said("updateUSB", "Error: " + kPackage + " file is NOT signed")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("[zaq][%s] the file is NOT signed!! : %s\n", "Error: %s file is NOT signed"));
}

TEST_F(UsbUpdate, IgnoresAFailingSetContext) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").setContextResult = -1;

  EXPECT_EQ(update(symbol), 0);
}

TEST_F(UsbUpdate, ClosesThePackageBeforeItAsksTheModule) {
  FWUpdateSymbol symbol = boundWithPackage();
  bool openInCheckVersion = true;
  scripted::module("libabc").checkVersion = [&](const char*, int* need) {
    openInCheckVersion = packageIsOpen();
    *need = 1;
    return 0;
  };

  EXPECT_EQ(update(symbol), 0);

  EXPECT_FALSE(openInCheckVersion);
}

TEST_F(UsbUpdate, ReportsAFailedComparison) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").checkVersionResult = 4;

  EXPECT_EQ(update(symbol), -1);

  EXPECT_EQ(recording::messages().back(), said("updateUSB", "Error: abc Firmware CheckVersion Fail"));
  EXPECT_EQ(recording::traceFormats().back(), "Error: %s Firmware CheckVersion Fail");
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext, versionCall("2.0")));
}

TEST_F(UsbUpdate, IsRefusedWhenTheModuleDoesNotNeedIt) {
  FWUpdateSymbol symbol = boundWithPackage();
  for (const int need : {0, -1, -7}) {
    scripted::module("libabc").need = need;
    recording::reset();

    EXPECT_EQ(update(symbol), -1);

    EXPECT_EQ(recording::messages().back(), said("updateUSB", "Error: abc Firmware not need update"));
    EXPECT_EQ(recording::traceFormats().back(), "Error: %s Firmware not need update");
    EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext, versionCall("2.0")));
  }
}

TEST_F(UsbUpdate, IsDoneForAnyNeedAboveZero) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").need = 5;

  EXPECT_EQ(update(symbol), 0);
}

TEST_F(UsbUpdate, ReturnsTheModulesOwnFailureWithTheErrorOfThatMoment) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").doUpdateDecryptionResult = 5;
  scripted::module("libabc").errorNumber = ENOSPC;

  EXPECT_EQ(update(symbol), 5);

  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said("zaq_verify", kSigned), said("updateUSB", kStart),
                  said("updateUSB", "Error: abc Firmware doUpdate Fail 5 (28:No space left on device)")));
  EXPECT_EQ(recording::traceFormats().back(), "Error: %s Firmware doUpdate Fail %d (%d:%m)");
  const int values[] = {5, ENOSPC};
  EXPECT_EQ(recording::traceRecords().back().payload,
            "\x03"
            "abc" +
                std::string(reinterpret_cast<const char*>(values), sizeof(values)));
}

TEST_F(UsbUpdate, FailsForAModuleThatTakesNoDecryptedImage) {
  scripted::installModule("libdef", "doUpdate_decryption");
  FWUpdateSymbol symbol("libdef");
  symbol.loadSymbol("libdef");
  recording::reset();
  writeFile(kPackage, usb::package("2.0", "image"));

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts().back(), HasSubstr("Error: abc Firmware doUpdate Fail -1 ("));
}

TEST_F(UsbUpdate, FailsOnlyAtTheModuleForOneWithoutPackage) {
  FWUpdateSymbol symbol = bound("libEXT-abc");
  writeFile(std::string(kDrive) + ".bin", usb::package("2.0", "image"));

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(), Contains("========== [  update start ] =========="));
  EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr("doUpdate_decryption"))));
}

TEST_F(UsbUpdate, ChecksAPackageThatChangedSinceTheListing) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "image");
  ASSERT_EQ(list(symbol), 1);
  writeFile(kPackage, usb::package("3.0", "another image"));
  collectImages();
  recording::reset();

  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(recording::calls(), Contains(versionCall("3.0")));
  EXPECT_THAT(images, ElementsAre("another image"));
}

// ---- Damaged packages ---------------------------------------------------------------

namespace {

// What must come of a file of these bytes, whatever they are. A module that accepts
// every version shows how far each step gets.
class AnyBytes : public UsbPackage {
 protected:
  void SetUp() override {
    UsbPackage::SetUp();
    scripted::setVerifierAnswer([](const std::string&) { return 1; });
    scripted::module("libabc").checkVersion = [this](const char* version, int* need) {
      versions.emplace_back(version, usb::kVersionSize);
      *need = 1;
      return 0;
    };
    collectImages();
  }

  void expectListing(FWUpdateSymbol& symbol, const std::string& bytes) {
    versions.clear();
    recording::reset();
    if (bytes.size() < 614) {
      EXPECT_EQ(list(symbol), -1);
      EXPECT_EQ(recording::messages().back(), said("getNeedUpdateList", refusalOf(bytes)));
      EXPECT_THAT(versions, IsEmpty());
      return;
    }
    EXPECT_EQ(list(symbol), 1);
    EXPECT_THAT(recording::texts(), ElementsAre(kSigned));
    EXPECT_THAT(versions, ElementsAre(plaintext(bytes, bytes.size() - 534).substr(0, 64)));
  }

  void expectUpdate(FWUpdateSymbol& symbol, const std::string& bytes) {
    versions.clear();
    images.clear();
    recording::reset();
    const std::string plain = bytes.size() < 614 ? "" : plaintext(bytes, bytes.size() - 550);
    if (plain.size() < 64) {
      EXPECT_EQ(update(symbol), -1);
      EXPECT_EQ(recording::messages().back(), said("updateUSB", refusalOf(bytes)));
      EXPECT_THAT(versions, IsEmpty());
      EXPECT_THAT(images, IsEmpty());
      return;
    }
    EXPECT_EQ(update(symbol), 0);
    EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kStart, kSucceeded));
    EXPECT_THAT(versions, ElementsAre(plain.substr(0, 64)));
    EXPECT_THAT(images, ElementsAre(plain.substr(64)));
  }

  // The steps hold a whole buffer each until the next call.
  static void freeBuffer() {
    std::free(cipher_buf_all);
    cipher_buf_all = nullptr;
  }

  std::vector<std::string> versions;

 private:
  static std::string refusalOf(const std::string& bytes) {
    return bytes.size() < 16 ? "Error: iv is worng" : kNoData;
  }
  static std::string plaintext(const std::string& bytes, std::size_t fed) {
    return usb::decrypt(bytes.substr(16, fed), usb::key(), bytes.substr(0, 16));
  }
};

}  // namespace

TEST_F(AnyBytes, OfEveryLengthAreHandledWithinBounds) {
  FWUpdateSymbol symbol = bound();
  for (std::size_t size = 0; size <= 700; ++size) {
    SCOPED_TRACE(size);
    const std::string bytes = usb::noise(size, static_cast<unsigned int>(size));
    writeFile(kPackage, bytes);

    expectListing(symbol, bytes);
    freeBuffer();
    expectUpdate(symbol, bytes);
    freeBuffer();
  }
}

TEST_F(AnyBytes, OfAPackageCutAnywhereAreHandledWithinBounds) {
  FWUpdateSymbol symbol = bound();
  const std::string package = usb::package("2.0", usb::noise(70));
  for (std::size_t size = 0; size <= package.size(); ++size) {
    SCOPED_TRACE(size);
    const std::string bytes = package.substr(0, size);
    writeFile(kPackage, bytes);

    expectListing(symbol, bytes);
    freeBuffer();
    expectUpdate(symbol, bytes);
    freeBuffer();
  }
}

TEST_F(AnyBytes, OfPackagesAroundWholeReadsAreHandled) {
  FWUpdateSymbol symbol = bound();
  for (const std::size_t size : {10239U, 10240U, 10241U, 10255U, 10256U, 10257U, 10773U, 10774U, 10775U,
                                 10790U, 20480U, 20496U, 20497U, 21030U, 30736U}) {
    SCOPED_TRACE(size);
    const std::string bytes = usb::noise(size);
    writeFile(kPackage, bytes);

    expectListing(symbol, bytes);
    freeBuffer();
    expectUpdate(symbol, bytes);
    freeBuffer();
  }
}

TEST_F(UsbListing, ReportsAPackageShorterThanItsIv) {
  FWUpdateSymbol symbol = bound();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  writeFile(kPackage, std::string(15, 'x'));

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::everything(),
              ElementsAre(kVerified, "log: " + kSigned, kSetContext, "log: Error: iv is worng"));
  EXPECT_EQ(recording::traceFormats().back(), "Error: iv is worng");
}

TEST_F(UsbUpdate, ReportsAPackageShorterThanItsIv) {
  FWUpdateSymbol symbol = bound();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  writeFile(kPackage, "");

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::everything(),
              ElementsAre(kVerified, "log: " + kSigned, kSetContext, "log: Error: iv is worng"));
  EXPECT_EQ(recording::traceFormats().back(), "Error: iv is worng");
}

TEST_F(UsbListing, ReportsAPackageThatIsTooShortToHoldAVersion) {
  FWUpdateSymbol symbol = bound();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  writeFile(kPackage, std::string(613, 'x'));

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("zaq_verify", kSigned), said("getNeedUpdateList", kNoData)));
  EXPECT_EQ(recording::traceFormats().back(), kNoData);
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext));
  EXPECT_EQ(cipher_buf_all, nullptr) << "nothing is decrypted";
}

TEST_F(UsbUpdate, ReportsAPackageThatIsTooShortToHoldAVersion) {
  FWUpdateSymbol symbol = bound();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  writeFile(kPackage, std::string(613, 'x'));

  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::messages(), ElementsAre(said("zaq_verify", kSigned), said("updateUSB", kNoData)));
  EXPECT_EQ(recording::traceFormats().back(), kNoData);
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext));
}

class OverTwoGibibytes : public UsbPackage, public ::testing::WithParamInterface<std::uint64_t> {};

TEST_P(OverTwoGibibytes, IsRefusedInBothSteps) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  fs::resize_file(kPackage, GetParam());

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kNoData, kSigned, kNoData));
  EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr("checkVersion"))));
  EXPECT_EQ(cipher_buf_all, nullptr);
}

// 2 GiB, and sizes that a 32-bit number would take for a small package.
INSTANTIATE_TEST_SUITE_P(UsbPackage, OverTwoGibibytes,
                         ::testing::Values(0x80000000U, 0x80000010U, 0x100000000U, 0x100000400U));

TEST_F(UsbListing, ReportsAFailedAllocation) {
  if (!faults::canFailAllocations()) {
    GTEST_SKIP() << "valgrind allocates";
  }
  FWUpdateSymbol symbol = boundWithPackage("2.0", usb::noise(5000));
  faults::failingCallocSize = static_cast<std::size_t>(fs::file_size(kPackage));

  EXPECT_EQ(list(symbol), -1);

  EXPECT_EQ(recording::messages().back(), said("getNeedUpdateList", kNoData));
  EXPECT_EQ(cipher_buf_all, nullptr);
  EXPECT_FALSE(symbol.getNeedUpdate());
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext));
}

TEST_F(UsbUpdate, ReportsAFailedAllocation) {
  if (!faults::canFailAllocations()) {
    GTEST_SKIP() << "valgrind allocates";
  }
  FWUpdateSymbol symbol = boundWithPackage("2.0", usb::noise(5000));
  faults::failingCallocSize = static_cast<std::size_t>(fs::file_size(kPackage)) - 16;

  EXPECT_EQ(update(symbol), -1);

  EXPECT_EQ(recording::messages().back(), said("updateUSB", kNoData));
  EXPECT_EQ(cipher_buf_all, nullptr);
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext));
}

TEST_F(UsbPackage, ThatGoesAwayIsRefused) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").setContext = [](const char*, int, char*) {
    fs::remove(kPackage);
    return 0;
  };

  EXPECT_EQ(list(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kNoData));
}

// ---- What stands in the package's place ---------------------------------------------

TEST_F(UsbPackage, IsFollowedThroughALink) {
  FWUpdateSymbol symbol = bound();
  writeFile("/opt/media/real", usb::package("2.0", "image"));
  fs::create_symlink("/opt/media/real", kPackage);

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(update(symbol), 0);
}

TEST_F(UsbPackage, IsMissedBehindADanglingLink) {
  FWUpdateSymbol symbol = bound();
  fs::create_symlink("/opt/media/nowhere", kPackage);

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("Error: " + kPackage + " open fail", "Error: " + kPackage + " file open"));
}

TEST_F(UsbPackage, IsNoDirectory) {
  FWUpdateSymbol symbol = bound();
  fs::create_directory(kPackage);
  scripted::setVerifierAnswer([](const std::string&) { return 1; });

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, "Error: iv is worng", kSigned, "Error: iv is worng"));
}

TEST_F(UsbPackage, IsNotWaitedForBehindAFifo) {
  FWUpdateSymbol symbol = bound();
  ASSERT_EQ(mkfifo(kPackage.c_str(), 0600), 0);

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::everything(), ElementsAre("log: Error: " + kPackage + " open fail",
                                                   "log: Error: " + kPackage + " file open"));
}

TEST_F(UsbPackage, IsNotReadFromAnEndlessDevice) {
  FWUpdateSymbol symbol = bound();
  fs::create_symlink("/dev/zero", kPackage);
  scripted::setVerifierAnswer([](const std::string&) { return 1; });

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kNoData, kSigned, kNoData));
}

// ---- What was verified is what is used ----------------------------------------------

namespace {

// Changes that a package meets between its opening and the end of its reading.
struct Change {
  const char* name;
  void (*make)();
};

void PrintTo(const Change& row, std::ostream* out) {
  *out << row.name;
}

void flipByte() {
  std::fstream file(kPackage, std::ios::binary | std::ios::in | std::ios::out);
  file.seekg(100);
  const int byte = file.get();
  file.seekp(100);
  file.put(static_cast<char>(byte ^ 1));
}

constexpr Change kChanges[] = {
    {"AByteIsWritten", flipByte},
    {"ItGrows", [] { std::ofstream(kPackage, std::ios::binary | std::ios::app) << 'x'; }},
    {"ItIsCut", [] { fs::resize_file(kPackage, fs::file_size(kPackage) - 1); }},
    {"AnotherTakesItsPlace",
     [] {
       DeviceTest::writeFile("/opt/media/other", DeviceTest::readFile(kPackage));
       fs::rename("/opt/media/other", kPackage);
     }},
    {"AnotherDriveTakesItsPlace",  // the open file's own times stay
     [] {
       const std::string content = DeviceTest::readFile(kPackage);
       fs::remove_all("/opt/media/old");
       fs::rename(kDrive, "/opt/media/old");
       DeviceTest::writeFile(kPackage, content);
     }},
    {"ItsTimeIsSetBack",
     [] {
       flipByte();
       const timespec times[2] = {{1, 0}, {1, 0}};
       utimensat(AT_FDCWD, kPackage.c_str(), times, 0);
     }},
};

class ChangedPackage : public UsbPackage, public ::testing::WithParamInterface<Change> {
 protected:
  void SetUp() override {
    UsbPackage::SetUp();
    collectImages();
    symbol = std::make_unique<FWUpdateSymbol>(bound());
    layPackage();
  }

  // Files' times have the grain of the kernel's clock: waits until a change shows.
  static void layPackage() {
    writeFile(kPackage, usb::package("2.0", usb::noise(50000)));
    const auto written = fs::last_write_time(kPackage);
    do {
      writeFile("/tmp/clock", "");
    } while (fs::last_write_time("/tmp/clock") == written);
  }

  void expectRefusedAsNotSigned(const std::vector<std::string>& before) {
    std::vector<std::string> listing = before;
    listing.push_back("Error: " + kPackage + " is NOT signed");
    EXPECT_EQ(list(*symbol), -1);
    EXPECT_EQ(recording::texts(), listing);

    recording::reset();
    layPackage();
    std::vector<std::string> updating = before;
    updating.push_back("Error: " + kPackage + " file is NOT signed");
    EXPECT_EQ(update(*symbol), -1);
    EXPECT_EQ(recording::texts(), updating);

    EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr("checkVersion"))));
    EXPECT_THAT(images, IsEmpty());
    EXPECT_FALSE(symbol->getNeedUpdate());
  }

  std::unique_ptr<FWUpdateSymbol> symbol;
};

}  // namespace

TEST_P(ChangedPackage, WhileItIsVerifiedIsRefused) {
  scripted::setVerifierAnswer([](const std::string&) {
    GetParam().make();
    return 1;
  });

  expectRefusedAsNotSigned({kSigned});

  EXPECT_THAT(recording::calls(), Not(Contains(kSetContext))) << "at once, before it is read";
}

TEST_P(ChangedPackage, BeforeItIsReadIsRefused) {
  scripted::module("libabc").setContext = [](const char*, int, char*) {
    GetParam().make();
    return 0;
  };

  expectRefusedAsNotSigned({kSigned});
}

TEST_P(ChangedPackage, WhileItIsReadIsRefused) {
  scripted::installVerifier(scripted::Verifier::WithContentCheck);
  scripted::contentChecks().afterBytes = [] {
    if (scripted::contentChecks().content.size() == usb::package("2.0", usb::noise(50000)).size()) {
      GetParam().make();
    }
  };

  expectRefusedAsNotSigned({kSigned});
}

TEST_P(ChangedPackage, IsRefusedByAVerifierThatSaidNoToo) {
  scripted::setVerifierAnswer([](const std::string&) {
    GetParam().make();
    return 0;
  });

  expectRefusedAsNotSigned({kNotSigned});
}

INSTANTIATE_TEST_SUITE_P(UsbPackage, ChangedPackage, ::testing::ValuesIn(kChanges),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(UsbPackage, IsAnotherFileAlsoWhenThatIsAsLargeAndAsOld) {
  FWUpdateSymbol symbol = bound();
  const std::string other = "/opt/media/other/abc.bin";
  const std::string package = usb::package("2.0", "image");
  const auto changed = [](const std::string& path) {
    struct stat status = {};
    stat(path.c_str(), &status);
    return std::pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
  };
  do {  // until both are of one tick of the kernel's clock
    writeFile(kPackage, package);
    writeFile(other, package);
  } while (changed(kPackage) != changed(other));
  scripted::module("libabc").setContext = [](const char*, int, char*) {
    fs::rename(kDrive, "/opt/media/old");
    fs::rename("/opt/media/other", "/opt/media/USBDriveA");
    return 0;
  };

  EXPECT_EQ(update(symbol), -1);

  EXPECT_EQ(recording::texts().back(), "Error: " + kPackage + " file is NOT signed");
}

TEST_F(UsbPackage, MayChangeBetweenTheSteps) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", "first");
  ASSERT_EQ(list(symbol), 1);
  writeFile(kPackage, usb::package("2.1", "second, longer"));
  collectImages();

  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(images, ElementsAre("second, longer"));
}

TEST_F(UsbPackage, MayBeReadByOthersMeanwhile) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").setContext = [](const char*, int, char*) {
    readFile(kPackage);  // sets the time of the last access
    return 0;
  };

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(update(symbol), 0);
}

TEST_F(UsbPackage, IsNotReadBeyondTheSizeThatItHad) {
  scripted::installVerifier(scripted::Verifier::WithContentCheck);
  FWUpdateSymbol symbol = boundWithPackage("2.0", usb::noise(50000));
  const std::string whole = readFile(kPackage);
  int additions = 0;
  scripted::contentChecks().afterBytes = [&additions] {
    if (++additions < 1000) {  // so that the test ends
      std::ofstream(kPackage, std::ios::binary | std::ios::app) << usb::noise(20000);
    }
  };

  EXPECT_EQ(update(symbol), -1);

  EXPECT_EQ(scripted::contentChecks().content, whole);
}

// ---- Content check ------------------------------------------------------------------

namespace {

const std::string kBegan = "beginContentCheck(\"" + kPackage + "\", open)";
const std::string kEnded = "endContentCheck()";
const std::string kReleased = "releaseContentCheck()";
const std::string kNotedApplied = "noteAppliedPackage()";

class ContentChecked : public UsbPackage {
 protected:
  void SetUp() override {
    UsbPackage::SetUp();
    scripted::installVerifier(scripted::Verifier::WithContentCheck);
  }
  void TearDown() override {
    EXPECT_EQ(scripted::contentChecks().unreleased, 0) << "released on every way out";
    UsbPackage::TearDown();
  }
};

}  // namespace

TEST_F(ContentChecked, GetsEveryByteInTheFilesOrder) {
  FWUpdateSymbol symbol = boundWithPackage("2.0", usb::noise(1000003));

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(scripted::contentChecks().content, readFile(kPackage));
  EXPECT_EQ(update(symbol), 0);
  EXPECT_EQ(scripted::contentChecks().content, readFile(kPackage));

  EXPECT_LE(scripted::contentChecks().largestAddition, usb::kReadSize) << "in constant memory";
}

TEST_F(ContentChecked, GetsWholePackagesAroundWholeReads) {
  FWUpdateSymbol symbol = bound();
  for (const std::size_t reads : {1U, 2U}) {
    for (int more = -600; more <= 600; more += 8) {
      const auto size = static_cast<std::size_t>(static_cast<int>(reads * usb::kReadSize) + more);
      writeFile(kPackage, usb::package("2.0", usb::noise(size)));

      ASSERT_EQ(update(symbol), 0) << size;

      ASSERT_EQ(scripted::contentChecks().content, readFile(kPackage)) << size;
    }
  }
}

TEST_F(ContentChecked, IsAskedBetweenTheReadingAndTheModule) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);
  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext, kBegan, kEnded, versionCall("2.0"),
                                              "libabc.getExpectedTime()", kReleased));
  recording::reset();

  EXPECT_EQ(update(symbol), 0);
  const std::vector<std::string> calls = recording::calls();
  ASSERT_EQ(calls.size(), 8U);
  EXPECT_THAT(std::vector<std::string>(calls.begin(), calls.begin() + 5),
              ElementsAre(kVerified, kSetContext, kBegan, kEnded, versionCall("2.0")));
  EXPECT_THAT(calls[5], HasSubstr("doUpdate_decryption"));
  EXPECT_EQ(calls[6], kNotedApplied);
  EXPECT_EQ(calls[7], kReleased);
}

TEST_F(ContentChecked, ChangesNoMessage) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kSigned, kStart, kSucceeded));
}

TEST_F(ContentChecked, RefusesLikeTheVerification) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::contentChecks().verdict = 0;

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kSetContext, kBegan, kEnded, kReleased, kVerified,
                                              kSetContext, kBegan, kEnded, kReleased));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("zaq_verify", kSigned),
                          said("getNeedUpdateList", "Error: " + kPackage + " is NOT signed"),
                          said("zaq_verify", kSigned),
                          said("updateUSB", "Error: " + kPackage + " file is NOT signed")));
}

TEST_F(ContentChecked, AcceptsWithAnyAnswerButZero) {
  FWUpdateSymbol symbol = boundWithPackage();
  for (const int verdict : {1, 2, -1}) {
    scripted::contentChecks().verdict = verdict;

    EXPECT_EQ(update(symbol), 0);
  }
}

TEST_F(ContentChecked, RefusesWhenItCannotBegin) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::contentChecks().begins = false;

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, "Error: " + kPackage + " is NOT signed", kSigned,
                                              "Error: " + kPackage + " file is NOT signed"));
}

TEST_F(ContentChecked, IsMadeByNobodyWhenAPartOfItIsMissing) {
  scripted::installVerifier(scripted::Verifier::WithoutEndOfContentCheck);
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);
  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(recording::calls(), Not(Contains(HasSubstr("ContentCheck"))));
  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kSigned, kStart, kSucceeded)) << "nothing is said";
}

TEST_F(ContentChecked, IsMadeWithoutANoteOfWhatWasApplied) {
  scripted::installVerifier(scripted::Verifier::WithoutNoteOfApplied);
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(update(symbol), 0);

  EXPECT_THAT(recording::calls(), Contains(kEnded));
  EXPECT_THAT(recording::texts(), ElementsAre(kSigned, kStart, kSucceeded));
}

TEST_F(ContentChecked, IsNotMadeOfWhatTheVerifierRefuses) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::setVerifierAnswer([](const std::string&) { return 0; });

  EXPECT_EQ(list(symbol), -1);
  EXPECT_EQ(update(symbol), -1);

  EXPECT_THAT(recording::calls(), ElementsAre(kVerified, kVerified));
}

TEST_F(ContentChecked, IsReleasedOnEveryOtherWayOut) {
  FWUpdateSymbol symbol = bound();
  scripted::setVerifierAnswer([](const std::string&) { return 1; });
  for (const std::string& bytes :
       {std::string(15, 'x'), std::string(613, 'x'), usb::package("2.0", "").substr(0, 614)}) {
    writeFile(kPackage, bytes);
    EXPECT_EQ(update(symbol), -1) << bytes.size();
  }
  writeFile(kPackage, usb::package("2.0", "image"));
  scripted::module("libabc").need = 0;
  EXPECT_EQ(update(symbol), -1);
  scripted::module("libabc").checkVersionResult = -1;
  EXPECT_EQ(update(symbol), -1);
  EXPECT_EQ(list(symbol), -1);

  EXPECT_EQ(scripted::contentChecks().unreleased, 0);
  EXPECT_THAT(recording::calls(), Not(Contains(kNotedApplied)));
}

TEST_F(ContentChecked, TakesNoNoteOfAPackageThatTheModuleFailedToApply) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::module("libabc").doUpdateDecryptionResult = 5;

  EXPECT_EQ(update(symbol), 5);

  EXPECT_THAT(recording::calls(), Not(Contains(kNotedApplied)));
}

TEST_F(ContentChecked, TakesNoNoteOfAListing) {
  FWUpdateSymbol symbol = boundWithPackage();

  EXPECT_EQ(list(symbol), 1);

  EXPECT_THAT(recording::calls(), Not(Contains(kNotedApplied)));
}

TEST_F(ContentChecked, SaysThatANoteCouldNotBeTaken) {
  FWUpdateSymbol symbol = boundWithPackage();
  scripted::contentChecks().noteResult = -28;

  EXPECT_EQ(update(symbol), 0) << "the firmware is new all the same";

  EXPECT_THAT(recording::messages(), ElementsAre(said("zaq_verify", kSigned), said("updateUSB", kStart),
                                                 said("updateUSB", "Error: abc minimum version is not kept"),
                                                 said("updateUSB", kSucceeded)));
}

// ---- All modules --------------------------------------------------------------------

namespace {

class UsbRun : public UsbPackage {
 protected:
  static FWUpdateSymbolManager& registry() { return *FWUpdateSymbolManager::getInstance(); }

  // Registers modules, each with a package; returned in the registry's order.
  std::vector<std::string> modules(const std::vector<std::string>& stems) {
    for (const std::string& stem : stems) {
      scripted::installModule(stem);
      scripted::module(stem).empId = "emp" + stem;
      writeFile(packageOf(stem), usb::package("2.0", "image of " + stem));
    }
    std::vector<std::string> order;
    for (const auto& entry : fs::directory_iterator(kControls)) {
      order.push_back(entry.path().stem());
    }
    registry().onCreate(false);
    recording::reset();
    return order;
  }

  static std::string packageOf(const std::string& stem) { return kDrive + stem + ".bin"; }

  int list() { return registry().getFirmwareUpdateTime(usb::bytesOf(usb::key()), kDrive, time); }
  static int update() { return registry().doUpdateUSB(usb::bytesOf(usb::key()), kDrive); }

  static std::vector<std::string> updated() {
    std::vector<std::string> out;
    for (const std::string& call : recording::calls()) {
      const auto at = call.find(".doUpdate_decryption(");
      if (at != std::string::npos) {
        out.push_back(call.substr(0, at));
      }
    }
    return out;
  }

  int time = 77;
};

}  // namespace

TEST_F(UsbRun, FindsNoTimeInAnEmptyRegistry) {
  EXPECT_EQ(list(), -1);

  EXPECT_EQ(time, 0);
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UsbRun, AddsUpTheTimesOfTheModulesThatNeedAnUpdate) {
  const auto order = modules({"liba", "libb", "libc"});
  scripted::module(order[0]).expectedTime = 30;
  scripted::module(order[1]).expectedTime = 500;
  scripted::module(order[1]).need = 0;
  scripted::module(order[2]).expectedTime = 60;

  EXPECT_EQ(list(), 0);

  EXPECT_EQ(time, 90);
  EXPECT_THAT(recording::messages(),
              Contains(managerSaid("getFirmwareUpdateTime", "Need Update [" + order[0] + "] [30]")));
  EXPECT_THAT(recording::messages(),
              Contains(managerSaid("getFirmwareUpdateTime", "Need Update [" + order[2] + "] [60]")));
  EXPECT_THAT(recording::texts(), Contains(HasSubstr("Need Update [")).Times(2));
  EXPECT_THAT(recording::traceFormats(), Contains("Need Update [%s] [%d]").Times(2));
}

TEST_F(UsbRun, AsksOneModuleAfterAnother) {
  const auto order = modules({"liba", "libb"});

  EXPECT_EQ(list(), 0);

  std::vector<std::string> expected;
  for (const std::string& stem : order) {
    expected.push_back("verifyFile(0, \"" + packageOf(stem) + "\", \"UserCaller\")");
    expected.push_back("log: [zaq][UserCaller] the file is signed successfully : " + packageOf(stem) + "\n");
    expected.push_back(stem + ".setContext(\"" + stem + "\", 3, \"\")");
    expected.push_back(stem + ".checkVersion(\"2.0\", -1)");
    expected.push_back(stem + ".getExpectedTime()");
    expected.push_back("log: Need Update [" + stem + "] [1]");
  }
  EXPECT_EQ(recording::everything(), expected);
}

TEST_F(UsbRun, CountsOnlyAnAnswerOfExactlyOne) {
  const auto order = modules({"liba", "libb", "libc"});
  scripted::module(order[0]).need = 2;
  scripted::module(order[1]).need = -1;
  scripted::module(order[2]).need = 0;

  EXPECT_EQ(list(), -1);

  EXPECT_EQ(time, 0);
  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("Need Update ["))));
  recording::reset();
  scripted::module(order[0]).need = 1;
  scripted::module(order[1]).need = 1;
  scripted::module(order[2]).need = 1;

  EXPECT_EQ(update(), 0);

  EXPECT_THAT(updated(), ElementsAre(order[0], order[1])) << "marked all the same";
}

TEST_F(UsbRun, FindsTheModulesAfterOneThatFails) {
  const auto order = modules({"liba", "libb", "libc"});
  fs::remove(packageOf(order[0]));
  scripted::module(order[1]).checkVersionResult = -1;

  EXPECT_EQ(list(), 0);

  EXPECT_EQ(time, 1);
  EXPECT_EQ(recording::texts().back(), "Need Update [" + order[2] + "] [1]");
}

TEST_F(UsbRun, NeverListsOrUpdatesAModuleWithoutPackage) {
  scripted::installModule("libEXT-abc");
  writeFile(std::string(kDrive) + ".bin", usb::package("2.0", "image"));
  registry().onCreate(false);
  recording::reset();

  EXPECT_EQ(list(), -1);
  EXPECT_EQ(update(), -1);

  EXPECT_EQ(time, 0);
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UsbRun, MarksNoModuleWhosePackageIsNotSigned) {
  const auto order = modules({"liba"});
  scripted::setVerifierAnswer([](const std::string&) { return 0; });

  EXPECT_EQ(list(), -1);
  scripted::setVerifierAnswer(nullptr);

  EXPECT_EQ(update(), -1);
  EXPECT_THAT(updated(), IsEmpty());
}

TEST_F(UsbRun, ListsNothingWithoutAKey) {
  modules({"liba", "libb"});

  EXPECT_EQ(registry().getFirmwareUpdateTime(nullptr, kDrive, time), -1);

  EXPECT_EQ(time, 0);
  EXPECT_THAT(recording::texts(), ElementsAre("Error: ckey  is nullptr", "Error: ckey  is nullptr"));
}

TEST_F(UsbRun, LetsTheSumWrap) {
  const auto order = modules({"liba", "libb"});
  scripted::module(order[0]).expectedTime = 2147483647;
  scripted::module(order[1]).expectedTime = 1;

  EXPECT_EQ(list(), 0);

  EXPECT_EQ(time, -2147483647 - 1);
}

TEST_F(UsbRun, AddsANegativeTimeAsTheModuleGaveIt) {
  modules({"liba"});
  scripted::module("liba").expectedTime = -5;

  EXPECT_EQ(list(), 0);

  EXPECT_EQ(time, -5);
  EXPECT_EQ(recording::texts().back(), "Need Update [liba] [-5]");
}

TEST_F(UsbRun, UpdatesNothingSilentlyBeforeAListing) {
  modules({"liba", "libb"});

  EXPECT_EQ(update(), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UsbRun, UpdatesNothingSilentlyWhenNoneNeedsIt) {
  modules({"liba"});
  scripted::module("liba").need = 0;
  EXPECT_EQ(list(), -1);
  EXPECT_EQ(time, 0);
  recording::reset();

  EXPECT_EQ(update(), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UsbRun, UpdatesTheMarkedModulesInOrder) {
  const auto order = modules({"liba", "libb", "libc"});
  scripted::module(order[1]).need = 0;
  ASSERT_EQ(list(), 0);
  scripted::module(order[1]).need = 1;
  recording::reset();

  EXPECT_EQ(update(), 0);

  EXPECT_THAT(updated(), ElementsAre(order[0], order[2]));
}

TEST_F(UsbRun, ReturnsTheLastModulesResult) {
  const auto order = modules({"liba", "libb"});
  ASSERT_EQ(list(), 0);
  scripted::module(order[0]).doUpdateDecryptionResult = 5;
  EXPECT_EQ(update(), 0);

  scripted::module(order[0]).doUpdateDecryptionResult = 0;
  scripted::module(order[1]).doUpdateDecryptionResult = 9;
  recording::reset();
  EXPECT_EQ(update(), 9);

  EXPECT_THAT(recording::texts(), Not(Contains(HasSubstr("update fail ["))))
      << "said for -1 alone, not for a module's own failure";
}

TEST_F(UsbRun, ReportsAFailedModuleAndGoesOn) {
  const auto order = modules({"liba", "libb"});
  ASSERT_EQ(list(), 0);
  fs::remove(packageOf(order[0]));
  recording::reset();

  EXPECT_EQ(update(), 0);

  EXPECT_EQ(recording::messages()[0], said("updateUSB", "Error: " + packageOf(order[0]) + " file open"));
  EXPECT_EQ(recording::messages()[1], managerSaid("doUpdateUSB", "update fail [" + order[0] + "]"));
  EXPECT_EQ(recording::traceFormats()[1], "update fail [%s]");
  EXPECT_THAT(updated(), ElementsAre(order[1]));
}

TEST_F(UsbRun, ReportsAModulesOwnMinusOneAsWell) {
  modules({"liba"});
  ASSERT_EQ(list(), 0);
  scripted::module("liba").doUpdateDecryptionResult = -1;

  EXPECT_EQ(update(), -1);

  EXPECT_EQ(recording::texts().back(), "update fail [liba]");
}

TEST_F(UsbRun, ReportsEveryMarkedModuleWithoutAKey) {
  const auto order = modules({"liba", "libb"});
  ASSERT_EQ(list(), 0);
  recording::reset();

  EXPECT_EQ(registry().doUpdateUSB(nullptr, kDrive), -1);

  EXPECT_THAT(recording::texts(), ElementsAre("Error: ckey  is nullptr", "update fail [" + order[0] + "]",
                                              "Error: ckey  is nullptr", "update fail [" + order[1] + "]"));
}

TEST_F(UsbRun, UpdatesTheSameModulesAgainWithoutANewListing) {
  modules({"liba"});
  ASSERT_EQ(list(), 0);
  ASSERT_EQ(update(), 0);
  recording::reset();

  EXPECT_EQ(update(), 0);

  EXPECT_THAT(updated(), ElementsAre("liba"));
}

TEST_F(UsbRun, UpdatesAModuleThatWasMarkedOtherwise) {
  modules({"liba"});
  writeImage(kBuiltin, "liba");
  std::list<FWUpdateItem> items;
  char noData[] = "";
  registry().getUpdateFwItems(items, CALLER_UPGRADE_APP, noData);
  ASSERT_EQ(items.size(), 1U);
  recording::reset();

  EXPECT_EQ(update(), 0);

  EXPECT_THAT(updated(), ElementsAre("liba"));
}

TEST_F(UsbRun, VerifiesAndDecryptsOncePerStep) {
  modules({"liba"});

  ASSERT_EQ(list(), 0);
  ASSERT_EQ(update(), 0);

  EXPECT_THAT(recording::calls(),
              Contains("verifyFile(0, \"" + packageOf("liba") + "\", \"UserCaller\")").Times(2));
  EXPECT_THAT(recording::calls(), Contains("liba.checkVersion(\"2.0\", -1)").Times(2));
}
