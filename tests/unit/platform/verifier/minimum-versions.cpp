// SPDX-License-Identifier: Apache-2.0
#include "minimum-versions.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "limited-resource.h"
#include "temporary-place.h"

namespace {

using fwpackage::MinimumVersion;
using fwpackage::Statements;
using State = fwpackage::MinimumVersion::State;

namespace fs = std::filesystem;

Statements stating(const std::string& minimum, const std::string& name = "tunerfw") {
  Statements statements;
  statements.name = name;
  statements.version = "9";
  statements.minimumVersion = minimum;
  return statements;
}

class MinimumVersions : public TemporaryPlace {
 protected:
  std::string store() const { return path("state/minimum-versions"); }
  int raise(const std::string& minimum) const { return raiseMinimumVersion(store(), stating(minimum)); }
  MinimumVersion noted(const std::string& name = "tunerfw") const {
    return fwpackage::readMinimumVersion(store(), name);
  }
  State stateWith(const std::string& content) const {
    write("state/minimum-versions/tunerfw", content);
    return noted().state;
  }
  unsigned int modeOf(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(stat((store() + name).c_str(), &status), 0) << name;
    return status.st_mode & 07777U;
  }
};

TEST_F(MinimumVersions, AreNoneAtFirst) {
  EXPECT_EQ(noted().state, State::None);

  fs::create_directories(store());
  EXPECT_EQ(noted().state, State::None);
}

TEST_F(MinimumVersions, AreNotedForTheirNameAlone) {
  ASSERT_EQ(raise("2.0.0"), 0);

  EXPECT_EQ(noted().state, State::Known);
  EXPECT_EQ(noted().version, "2.0.0");
  EXPECT_EQ(noted("wififw").state, State::None);
  EXPECT_EQ(read("state/minimum-versions/tunerfw"), "2.0.0\n");
}

TEST_F(MinimumVersions, AreRaisedAndNeverLowered) {
  ASSERT_EQ(raise("1.9"), 0);
  ASSERT_EQ(raise("1.10"), 0);
  EXPECT_EQ(noted().version, "1.10");

  EXPECT_EQ(raise("1.9"), 0);
  EXPECT_EQ(raise("1.010"), 0);  // the same, otherwise written
  EXPECT_EQ(noted().version, "1.10");
}

TEST_F(MinimumVersions, StayWhenAPackageStatesNone) {
  EXPECT_EQ(raise(""), 0);
  EXPECT_FALSE(fs::exists(path("state")));

  ASSERT_EQ(raise("2"), 0);
  EXPECT_EQ(raise(""), 0);
  EXPECT_EQ(noted().version, "2");
}

TEST_F(MinimumVersions, AreReadByEverybodyWhateverTheUmask) {
  const mode_t before = umask(0077);
  const int error = raise("2");
  umask(before);

  ASSERT_EQ(error, 0);
  EXPECT_EQ(modeOf("/tunerfw"), 0644U);
  EXPECT_EQ(modeOf(""), 0755U);
  EXPECT_EQ(modeOf("/.."), 0755U);
  EXPECT_EQ(modeOf("/.lock"), 0600U);
}

TEST_F(MinimumVersions, ThatAreDamagedAreUnusable) {
  for (const std::string damaged : {"", "\n", "2.0.0", "2.0\x01\n", "2.0\n3.0\n", "2.0.0\n\n", "\xff\n"}) {
    EXPECT_EQ(stateWith(damaged), State::Unusable) << damaged;
  }
  EXPECT_EQ(stateWith(std::string(8, '\0')), State::Unusable);
  EXPECT_EQ(stateWith(std::string(300, '1') + "\n"), State::Unusable);
  EXPECT_EQ(stateWith(std::string(255, '1') + "\n"), State::Known);
  EXPECT_EQ(stateWith(" ~\n"), State::Known);
}

TEST_F(MinimumVersions, ThatAreDamagedAreNotReplaced) {
  stateWith("2.0.0");

  EXPECT_EQ(raise("3"), EBADMSG);
  EXPECT_EQ(read("state/minimum-versions/tunerfw"), "2.0.0");
}

TEST_F(MinimumVersions, ThatAreNoFilesAreUnusable) {
  fs::create_directories(store() + "/directory");
  fs::create_symlink("/nowhere", store() + "/link");
  ASSERT_EQ(mkfifo((store() + "/fifo").c_str(), 0644), 0);
  for (const char* name : {"directory", "link", "fifo"}) {
    EXPECT_EQ(noted(name).state, State::Unusable) << name;
    EXPECT_EQ(raiseMinimumVersion(store(), stating("1", name)), EBADMSG) << name;
  }
}

TEST_F(MinimumVersions, AreUnusableWhenTheirDirectoryIsNone) {
  write("state/minimum-versions", "");

  EXPECT_EQ(noted().state, State::Unusable);
  EXPECT_EQ(raise("1"), ENOTDIR);
}

TEST_F(MinimumVersions, StayWhenTheyCannotBeRaised) {
  ASSERT_EQ(raise("1"), 0);
  int error = 0;
  {
    const auto full = LimitedResource::fileSize(0);
    error = raise("2");
  }
  EXPECT_EQ(error, EFBIG);
  {
    const auto none = LimitedResource::noDescriptors();
    error = raise("2");
  }
  EXPECT_EQ(error, EMFILE);

  EXPECT_EQ(noted().version, "1");
  EXPECT_FALSE(fs::exists(store() + "/tunerfw.new"));
}

// Reading is refused with it: what cannot be read may have been noted.
TEST_F(MinimumVersions, AreUnusableWithoutADescriptor) {
  ASSERT_EQ(raise("1"), 0);

  const auto none = LimitedResource::noDescriptors();

  EXPECT_EQ(noted().state, State::Unusable);
}

TEST_F(MinimumVersions, AreTheHighestOfAllWhoRaiseAtOnce) {
  std::vector<pid_t> children;
  for (int child = 0; child < 4; ++child) {
    children.push_back(fork());
    if (children.back() == 0) {
      for (int version = 1; version <= 15; ++version) {
        if (raise(std::to_string(version) + "." + std::to_string(child)) != 0) {
          _exit(1);
        }
      }
      _exit(0);
    }
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }

  EXPECT_EQ(noted().version, "15.3");
}

}  // namespace
