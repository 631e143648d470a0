// SPDX-License-Identifier: Apache-2.0
// What was handed over, at the device's paths: in which order it gets onto the disk and into its
// place, and that nothing of it is there otherwise.
#include "taking.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "device-environment.h"
#include "file-calls.h"
#include "file-descriptor.h"
#include "intake.h"
#include "public-keys.h"
#include "signed-package.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using updated::HandOver;
using updated::HandOverKind;
using updated::Taken;

constexpr char kPackage[] = "/opt/usr/apps/appbinarymanager/tunerempfw.img";
constexpr char kImage[] = "/opt/usr/share/sbox/tunerfw/tunerfw.bin";
constexpr char kIncoming[] = "/var/lib/fw-updated/incoming";

class TakenFiles : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    writeFile(std::string(fwpackage::kKeyDirectory) + "/maker.pem", publicPem(key()));
    filecalls::reset();
  }
  void TearDown() override { filecalls::reset(); }

  static const fwpack::SigningKey& key() { return testSigningKey("ed25519"); }

  static base::FileDescriptor opened(const std::string& path) {
    return base::FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }

  static HandOver signedAs(HandOverKind kind, fwpackage::Kind statedKind, const std::string& name) {
    fs::remove("/tmp/package");  // others may be open
    writeFile("/tmp/package", signedFile(std::string(5000, 'p'), key(), {statedKind, name, "", "2.0.0", ""}));
    HandOver handOver;
    handOver.kind = kind;
    handOver.package = "tunerempfw";
    handOver.files[updated::kPackagePart] = opened("/tmp/package");
    return handOver;
  }
  static HandOver package() {
    return signedAs(HandOverKind::Package, fwpackage::Kind::ExtensionPackage, "tunerempfw");
  }
  static HandOver usb() { return signedAs(HandOverKind::Usb, fwpackage::Kind::UsbPackage, "tunerfw"); }
  static HandOver image() {
    writeFile("/tmp/tunerfw.bin", "image");
    writeFile("/tmp/info.json", "{}");
    fwpack::writeImageSignature("/tmp/tunerfw.bin", "/tmp/info.json", key(),
                                {fwpackage::Kind::Image, "tunerfw", "", "2.0.0", ""});
    HandOver handOver;
    handOver.kind = HandOverKind::Image;
    handOver.package = "tunerempfw";
    handOver.files[updated::kImagePart] = opened("/tmp/tunerfw.bin");
    handOver.files[updated::kInformationPart] = opened("/tmp/info.json");
    handOver.files[updated::kSignaturePart] = opened("/tmp/tunerfw.bin.sig");
    return handOver;
  }

  // What was put on the disk and got a name, in this order.
  static std::vector<std::string> order() {
    std::vector<std::string> calls = filecalls::made();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const std::string& call) { return call.rfind("unlink", 0) == 0; }),
                calls.end());
    return calls;
  }

  static Taken take(const HandOver& handOver) {
    filecalls::made().clear();
    return updated::take(handOver);
  }

  // Wherever a call fails, nothing of it is there unfinished, and the client is told.
  void expectNothingOf(HandOver (*made)(), const std::string& place) {
    ASSERT_EQ(take(made()).error, "");
    const std::vector<std::string> calls = order();
    for (std::size_t failing = 0; failing < calls.size(); ++failing) {
      SetUp();
      const HandOver handOver = made();
      filecalls::fails = calls[failing];

      const Taken taken = take(handOver);

      EXPECT_EQ(taken.error, "org.fwupdate.Update1.Error.Failed") << calls[failing];
      EXPECT_THAT(taken.sentence, HasSubstr("Input/output error")) << calls[failing];
      EXPECT_EQ(taken.folder, "");
      const bool hasName = failing + 1 == calls.size();  // only its directory is not on the disk
      EXPECT_EQ(exists(place), hasName) << calls[failing];
      EXPECT_FALSE(exists(fs::path(place).parent_path() / ".incoming")) << calls[failing];
    }
  }
};

TEST_F(TakenFiles, PackageIsOnTheDiskBeforeItHasItsNameAndTheNameAfterwards) {
  const Taken taken = take(package());

  EXPECT_EQ(taken.error, "");
  EXPECT_THAT(order(), ElementsAre("sync tunerempfw.img", "rename tunerempfw.img tunerempfw.img",
                                   "sync appbinarymanager"));
  EXPECT_EQ(readFile(kPackage), readFile("/tmp/package"));
}

TEST_F(TakenFiles, UsbPackageIsOnTheDiskBeforeAJobHasItsFolder) {
  const Taken taken = take(usb());

  EXPECT_EQ(taken.error, "");
  EXPECT_THAT(order(), ElementsAre("sync fw-updated", "sync tunerfw.bin", "sync .incoming",
                                   "rename .incoming 1", "sync incoming"));
  EXPECT_EQ(taken.folder, std::string(kIncoming) + "/1");
  EXPECT_EQ(readFile(taken.folder + "/tunerfw.bin"), readFile("/tmp/package"));

  const Taken next = take(usb());

  EXPECT_THAT(order(), ElementsAre("sync tunerfw.bin", "sync .incoming", "rename .incoming 1",
                                   "rename .incoming 2", "sync incoming"));
  EXPECT_EQ(next.folder, std::string(kIncoming) + "/2");
}

TEST_F(TakenFiles, ImageIsOnTheDiskBeforeItsFolderHasItsName) {
  for (const auto& renames : {std::vector<std::string>{"rename tunerfw tunerfw", "rename tunerfw tunerfw"},
                              std::vector<std::string>{"rename tunerfw tunerfw"}}) {  // in place of another
    std::vector<std::string> expected = {"sync .incoming", "sync signature", "sync info.json",
                                         "sync tunerfw.bin", "sync tunerfw"};
    expected.insert(expected.end(), renames.begin(), renames.end());
    expected.emplace_back("sync sbox");

    const Taken taken = take(image());

    EXPECT_EQ(taken.error, "") << taken.sentence;
    EXPECT_EQ(order(), expected);
    EXPECT_EQ(readFile(kImage), "image");
  }
}

TEST_F(TakenFiles, AreNotThereWhenACallFails) {
  expectNothingOf(package, kPackage);
  expectNothingOf(image, kImage);
}

TEST_F(TakenFiles, AreForTheServiceAloneUntilTheyAreChecked) {
  for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
    umask(mask);
    std::vector<fs::perms> seen;
    filecalls::before = [&](const std::string& call) {
      if (call.rfind("sync tunerempfw", 0) == 0) {
        seen.push_back(fs::status("/opt/usr/apps/appbinarymanager/.incoming").permissions());
      }
    };

    EXPECT_EQ(take(package()).error, "");

    EXPECT_THAT(seen, ElementsAre(fs::perms::owner_all));
    EXPECT_EQ(fs::status(kPackage).permissions(), fs::perms(0644));
  }
}

TEST_F(TakenFiles, OfJobsThatAreOverAreRemoved) {
  const std::string used = take(usb()).folder;
  const std::string left = take(usb()).folder;
  for (const char* const place : {"/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox", kIncoming}) {
    writeFile(std::string(place) + "/.incoming/part", "p");
  }

  updated::removeLeftovers({used});

  EXPECT_TRUE(exists(used));
  EXPECT_FALSE(exists(left));
  for (const char* const place : {"/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox", kIncoming}) {
    EXPECT_FALSE(exists(std::string(place) + "/.incoming")) << place;
  }
}

// ---- One after the other ------------------------------------------------------------

constexpr char kFailed[] = "org.fwupdate.Update1.Error.Failed";
constexpr char kTooMany[] = "org.fwupdate.Update1.Error.TooMany";

// Ends the loop's run.
struct Over {};

class IntakeOfFiles : public TakenFiles {
 protected:
  explicit IntakeOfFiles(std::chrono::milliseconds patience = std::chrono::minutes(30))
      : intake_(loop_, patience) {}

  // What it says of this one is told; the loop's run ends with the last.
  void take(HandOver handOver, const Taken& problem = {}) {
    ++waiting_;
    intake_.take(
        std::move(handOver), [problem] { return problem; },
        [this](const Taken& taken) {
          told_.push_back(taken);
          if (--waiting_ == 0) {
            throw Over();
          }
        });
  }
  void run() {
    const updated::Source patience = loop_.after(std::chrono::seconds(60), [] { throw std::string("time"); });
    EXPECT_THROW(loop_.run(), Over);
  }

  updated::EventLoop loop_;
  std::vector<Taken> told_;

 private:
  updated::Intake intake_;
  int waiting_ = 0;
};

TEST_F(IntakeOfFiles, TakesThemInTheirOrder) {
  take(usb());
  take(package());
  take(usb());
  EXPECT_THAT(told_, IsEmpty());

  run();

  ASSERT_EQ(told_.size(), 3U);
  EXPECT_EQ(told_[0].folder, std::string(kIncoming) + "/1");
  EXPECT_EQ(told_[1].error + told_[1].folder, "");
  EXPECT_EQ(told_[2].folder, std::string(kIncoming) + "/2");
  EXPECT_TRUE(exists(kPackage));
}

TEST_F(IntakeOfFiles, LetsEightWait) {
  for (int number = 0; number < 8; ++number) {
    take(usb());
  }
  EXPECT_THAT(told_, IsEmpty());

  take(usb());

  ASSERT_EQ(told_.size(), 1U);
  EXPECT_EQ(told_[0].error, kTooMany);
  EXPECT_EQ(told_[0].sentence + " " + told_[0].remedy,
            "Too much is being handed over already. Hand it over again later.");
  run();
  EXPECT_EQ(told_.size(), 9U);
  EXPECT_EQ(told_.back().folder, std::string(kIncoming) + "/8");
}

TEST_F(IntakeOfFiles, LeavesOutWhatMayNotBeTakenWhenItsTurnComes) {
  take(package(), {"problem", "It may not.", "", ""});
  take(usb());

  run();

  ASSERT_EQ(told_.size(), 2U);
  EXPECT_EQ(told_[0].sentence, "It may not.");
  EXPECT_FALSE(exists(kPackage));
  EXPECT_EQ(told_[1].error, "");
}

TEST_F(IntakeOfFiles, SaysThatWhatCopiesWasEnded) {
  filecalls::before = [](const std::string& call) {  // in the process that copies
    if (call == "sync tunerempfw.img") {
      raise(SIGKILL);
    }
  };
  take(package());
  take(usb());

  run();

  ASSERT_EQ(told_.size(), 2U);
  EXPECT_EQ(told_[0].error, kFailed);
  EXPECT_EQ(told_[0].sentence + " " + told_[0].remedy,
            "It could not be taken: what copies it was ended. Hand it over again.");
  EXPECT_FALSE(exists(kPackage));
  EXPECT_EQ(told_[1].error, "");
}

TEST_F(IntakeOfFiles, WorksOnOneAtATimeAlsoWhenAnotherComesMeanwhile) {
  const auto copying = [] { return std::distance(fs::directory_iterator("/tmp/copying"), {}); };
  fs::create_directory("/tmp/copying");
  filecalls::before = [](const std::string& call) {
    if (call == "sync tunerempfw.img") {
      fs::create_directory("/tmp/copying/" + std::to_string(getpid()));
      while (!fs::exists("/tmp/go-on")) {
        usleep(1000);
      }
    }
  };
  take(package());
  updated::Source look;
  const std::function<void()> goOnWhenItCopies = [&] {
    if (copying() == 0) {
      look = loop_.after(std::chrono::milliseconds(1), goOnWhenItCopies);
      return;
    }
    take(usb());
    look = loop_.soon([] { writeFile("/tmp/go-on", ""); });
  };
  look = loop_.soon(goOnWhenItCopies);

  run();

  EXPECT_EQ(copying(), 1);
  ASSERT_EQ(told_.size(), 2U);
  EXPECT_EQ(told_[0].error + told_[0].folder, "");
  EXPECT_EQ(told_[1].folder, std::string(kIncoming) + "/1");
}

TEST_F(IntakeOfFiles, LeavesWhatCopiesNothingElseThatIsOpen) {
  const base::FileDescriptor own = opened("/");
  filecalls::before = [&own](const std::string& call) {
    if (call == "sync tunerempfw.img" && fcntl(own.get(), F_GETFD) >= 0) {
      raise(SIGKILL);
    }
  };
  take(package());

  run();

  EXPECT_EQ(told_.at(0).error, "") << told_.at(0).sentence;
}

class HurriedIntake : public IntakeOfFiles {
 protected:
  HurriedIntake() : IntakeOfFiles(std::chrono::milliseconds(200)) {}
};

TEST_F(HurriedIntake, EndsWhatTakesTooLong) {
  filecalls::before = [](const std::string& call) {
    if (call == "sync tunerempfw.img") {
      pause();
    }
  };
  take(package());

  run();

  EXPECT_EQ(told_.at(0).error, kFailed);
  EXPECT_THAT(told_.at(0).sentence, HasSubstr("what copies it was ended"));
  EXPECT_FALSE(exists(kPackage));
}

}  // namespace
