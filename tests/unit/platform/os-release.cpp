// SPDX-License-Identifier: Apache-2.0
#include "os-release.h"

#include <gtest/gtest.h>

namespace {

using fwplatform::OsRelease;
using fwplatform::parseOsRelease;
using fwplatform::softwareVersionText;

std::string versionOf(const char* osRelease) {
  return softwareVersionText(parseOsRelease(osRelease));
}

TEST(OsReleaseText, TakesShellQuotingOff) {
  struct Case {
    const char* line;
    const char* value;
  };
  const Case cases[] = {
      {"X=plain", "plain"},
      {"X=\"two words\"", "two words"},
      {"X='single $quoted \"text\"'", "single $quoted \"text\""},
      {"X=\"a\\\"b\\\\c\\$d\\`e\\f\"", "a\"b\\c$d`e\\f"},
      {"X='no \\ escape'", "no \\ escape"},
      {"X=a\\ b", "a b"},
      {"X=\"a\"'b'c", "abc"},
      {"X=value   # a comment", "value"},
      {"  X=indented", "indented"},
      {"X=", ""},
      {"X=\"\"", ""},
      {"X=dos\r", "dos"},
      {"X=first\nX=second", "second"},
      {"X=a=b", "a=b"},
  };

  for (const Case& one : cases) {
    const OsRelease release = parseOsRelease(one.line);
    ASSERT_EQ(release.count("X"), 1u) << one.line;
    EXPECT_EQ(release.find("X")->second, one.value) << one.line;
  }
}

TEST(OsReleaseText, LeavesOutWhatIsNoAssignment) {
  for (const char* line :
       {"", "\n\n", "# X=comment", "X", "=value", "X Y=1", "X=\"open", "X='open", "X=trailing\\", "X-Y=1"}) {
    EXPECT_TRUE(parseOsRelease(line).empty()) << line;
  }
}

TEST(OsReleaseText, KeepsTheEarlierValueWhenALaterLineIsBroken) {
  EXPECT_EQ(parseOsRelease("X=good\nX=\"bad\n").find("X")->second, "good");
}

TEST(SoftwareVersion, JoinsModelVersionAndBuild) {
  struct Case {
    const char* osRelease;
    const char* text;
  };
  const Case cases[] = {
      {"ID=debian\nVERSION_ID=\"12\"\nVERSION_CODENAME=bookworm\n", "debian-12-bookworm"},
      {"ID=debian\nVERSION_CODENAME=trixie\n", "debian-trixie"},
      {"ID=tv\nVERSION_ID=4\nBUILD_ID=20240131\nVERSION_CODENAME=x\n", "tv-4-20240131"},
      {"ID=tv\nVERSION_ID=4\nIMAGE_ID=t55\nIMAGE_VERSION=1302\n", "t55-1302"},
      {"ID=rolling\n", "rolling-unknown"},
      {"VERSION_ID=7\n", "linux-7"},
      {"", "linux-unknown"},
      {"ID=\nIMAGE_ID=''\nVERSION_ID=3\n", "linux-3"},
  };

  for (const Case& one : cases) {
    EXPECT_EQ(versionOf(one.osRelease), one.text) << one.osRelease;
  }
}

TEST(SoftwareVersion, AlwaysHasADash) {
  for (const char* text : {"", "ID=a", "VERSION_ID=1", "BUILD_ID=2", "IMAGE_VERSION=3", "nonsense"}) {
    EXPECT_NE(versionOf(text).find('-'), std::string::npos) << text;
  }
}

}  // namespace
