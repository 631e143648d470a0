// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-request.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using fwplatform::MknodRequest;
using fwplatform::MountRequest;
using fwplatform::parsePrivilegedRequest;
using fwplatform::PrivilegedOperation;
using fwplatform::PrivilegedRequest;
using fwplatform::UmountRequest;

const std::string kPackages = "/opt/usr/apps/appbinarymanager/";
const std::string kImage = kPackages + "tunerempfw.img";
const std::string kDirectory = kPackages + "emps/tunerempfw";

std::string terminated(const std::string& text) {
  return text + '\0';
}

// The reason for refusing a text, "" when it is taken.
std::string refusal(PrivilegedOperation operation, const std::string& text) {
  std::string refusal;
  const bool taken = parsePrivilegedRequest(operation, text, refusal).has_value();
  EXPECT_EQ(taken, refusal.empty()) << text;
  return refusal;
}

bool takesMount(const std::string& text) {
  return refusal(PrivilegedOperation::Mount, terminated(text)).empty();
}

bool takesMknod(const std::string& text) {
  return refusal(PrivilegedOperation::Mknod, terminated(text)).empty();
}

bool takesUmount(const std::string& text) {
  return refusal(PrivilegedOperation::Umount, text).empty();
}

TEST(MountText, IsTakenAsTheLibraryWritesIt) {
  std::string refusal;

  const auto request =
      parsePrivilegedRequest(PrivilegedOperation::Mount,
                             terminated("-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory), refusal);

  ASSERT_TRUE(request && std::holds_alternative<MountRequest>(*request)) << refusal;
  EXPECT_EQ(std::get<MountRequest>(*request).imageName, "tunerempfw.img");
  EXPECT_EQ(std::get<MountRequest>(*request).directoryName, "tunerempfw");
  EXPECT_FALSE(std::get<MountRequest>(*request).noExec);
}

TEST(MountText, TakesItsOptionsInAnyOrderAndNoexecBesides) {
  std::string refusal;

  const auto request = parsePrivilegedRequest(
      PrivilegedOperation::Mount, terminated("-o nosuid,noexec,ro,nodev,loop " + kImage + " " + kDirectory),
      refusal);

  ASSERT_TRUE(request) << refusal;
  EXPECT_TRUE(std::get<MountRequest>(*request).noExec);
}

TEST(MountText, RefusesOtherOptions) {
  for (const char* options : {"rw,loop,nodev,nosuid",
                              "ro,loop,nodev,nosuid,exec",
                              "ro,loop,nodev",
                              "loop,nodev,nosuid",
                              "ro,nodev,nosuid",
                              "ro,loop,nosuid",
                              "ro,loop,nodev,nosuid,suid",
                              "ro,loop,nodev,nosuid,dev",
                              "ro,loop=/dev/loop3,nodev,nosuid",
                              "ro,loop,nodev,nosuid,offset=512",
                              "ro,loop,nodev,nosuid,",
                              ",ro,loop,nodev,nosuid",
                              "ro,,loop,nodev,nosuid",
                              "ro,ro,loop,nodev,nosuid",
                              "RO,loop,nodev,nosuid",
                              "ro,loop,nodev,nosuid,X-mount.mkdir",
                              "ro,loop,nodev,nosuid,uhelper=x",
                              "defaults",
                              "remount",
                              "bind"}) {
    EXPECT_FALSE(takesMount(std::string("-o ") + options + " " + kImage + " " + kDirectory)) << options;
  }
}

TEST(MountText, RefusesOtherForms) {
  const std::string good = "-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory;
  ASSERT_TRUE(takesMount(good));
  const std::string forms[] = {
      "",
      " ",
      " " + good,
      good + " ",
      good + " more",
      good + "\n",
      "-o  ro,loop,nodev,nosuid " + kImage + " " + kDirectory,
      "-o ro,loop,nodev,nosuid  " + kImage + " " + kDirectory,
      "-o ro,loop,nodev,nosuid " + kImage + "  " + kDirectory,
      "-o\tro,loop,nodev,nosuid " + kImage + " " + kDirectory,
      "-oro,loop,nodev,nosuid " + kImage + " " + kDirectory,
      "-t squashfs " + kImage + " " + kDirectory,
      "ro,loop,nodev,nosuid " + kImage + " " + kDirectory,
      "-o ro,loop,nodev,nosuid " + kImage,
      "-o ro,loop,nodev,nosuid " + kImage + " ",
      "-o " + kImage + " " + kDirectory,
      "-o ro,loop,nodev,nosuid " + kDirectory + " " + kImage,
      "-O ro,loop,nodev,nosuid " + kImage + " " + kDirectory,
      "mount " + good,
      "-o ro,loop,nodev,nosuid \"" + kImage + "\" " + kDirectory,
  };

  for (const std::string& form : forms) {
    EXPECT_FALSE(takesMount(form)) << form;
  }
}

TEST(MountText, RefusesPathsOutside) {
  const std::string images[] = {
      "/etc/shadow",
      "tunerempfw.img",
      kPackages,
      kPackages + ".",
      kPackages + "..",
      kPackages + "../x.img",
      kPackages + "emps/x",
      kPackages + "./x.img",
      kPackages + "/x.img",
      "/" + kImage,
      kImage + "/",
      kPackages + ".hidden.img",
      kPackages + "a\xC3\xA4",
      "/opt/usr/apps/appbinary",
      kPackages.substr(0, kPackages.size() - 1) + "2/x.img",
      kPackages + "a*b",
      kPackages + "a\nb",
      "/opt//usr/apps/appbinarymanager/x.img",
      "/dev/sda",
      "/opt/usr/apps/appbinarymanager",
  };
  const std::string directories[] = {
      "/mnt",
      kPackages + "emps",
      kPackages + "emps/",
      kPackages + "emps/.",
      kPackages + "emps/..",
      kPackages + "emps/../../x",
      kPackages + "emps/a/b",
      kPackages + "emps//a",
      kPackages + "tunerempfw",
      kPackages + "emps2/a",
      kDirectory + "/",
      "emps/a",
  };

  for (const std::string& image : images) {
    EXPECT_FALSE(takesMount("-o ro,loop,nodev,nosuid " + image + " " + kDirectory)) << image;
  }
  for (const std::string& directory : directories) {
    EXPECT_FALSE(takesMount("-o ro,loop,nodev,nosuid " + kImage + " " + directory)) << directory;
    EXPECT_FALSE(takesUmount(directory)) << directory;
  }
}

TEST(MountText, MustBeTerminatedOnceAtItsEnd) {
  const std::string good = "-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory;

  EXPECT_EQ(refusal(PrivilegedOperation::Mount, good), "the text is not terminated");
  EXPECT_EQ(refusal(PrivilegedOperation::Mount, ""), "the text is not terminated");
  EXPECT_NE(refusal(PrivilegedOperation::Mount, terminated(terminated(good))), "");
  EXPECT_NE(refusal(PrivilegedOperation::Mount, terminated("-o ro,loop,nodev,nosuid") + terminated(" x y")),
            "");
}

TEST(MountText, TakesTheLongestTextAndNoLongerOne) {
  const std::string frame = "-o ro,loop,nodev,nosuid " + kPackages + " " + kPackages + "emps/";
  const std::string tooLong(1024, 'a');

  EXPECT_EQ(refusal(PrivilegedOperation::Mount, terminated(frame + tooLong)), "the text is too long");
  EXPECT_TRUE(takesMount("-o ro,loop,nodev,nosuid " + kPackages + std::string(255, 'i') + " " + kPackages +
                         "emps/" + std::string(255, 'd')));
  EXPECT_FALSE(takesMount("-o ro,loop,nodev,nosuid " + kPackages + std::string(256, 'i') + " " + kDirectory));
}

TEST(UmountText, IsTooLongByOneByte) {
  EXPECT_EQ(refusal(PrivilegedOperation::Umount, std::string(1025, 'a')), "the text is too long");
  EXPECT_NE(refusal(PrivilegedOperation::Umount, std::string(1024, 'a')), "the text is too long");
}

TEST(MknodText, TakesEveryLoopNumberAsTheLibraryWritesIt) {
  for (unsigned number = 0; number <= 249; ++number) {
    char text[64];
    std::snprintf(text, sizeof text, "-m 0660 -Z * /dev/loop%u  b 7 %u", number, number);
    std::string refusal;

    const auto request = parsePrivilegedRequest(PrivilegedOperation::Mknod, terminated(text), refusal);

    ASSERT_TRUE(request && std::holds_alternative<MknodRequest>(*request)) << text << refusal;
    EXPECT_EQ(std::get<MknodRequest>(*request).loopNumber, number);
  }
}

TEST(MknodText, RefusesOtherNodesAndForms) {
  ASSERT_TRUE(takesMknod("-m 0660 -Z * /dev/loop8  b 7 8"));
  for (const char* text : {
           "-m 0660 -Z * /dev/loop250  b 7 250",
           "-m 0660 -Z * /dev/loop8  b 7 9",
           "-m 0660 -Z * /dev/loop8  b 8 8",
           "-m 0660 -Z * /dev/loop8  c 7 8",
           "-m 0666 -Z * /dev/loop8  b 7 8",
           "-m 0660 -Z * /dev/loop08  b 7 08",
           "-m 0660 -Z * /dev/loop+8  b 7 +8",
           "-m 0660 -Z * /dev/loop-1  b 7 -1",
           "-m 0660 -Z * /dev/loop  b 7 ",
           "-m 0660 -Z * /dev/loop 8  b 7 8",
           "-m 0660 -Z * /dev/loop8 b 7 8",
           "-m 0660 -Z * /dev/loop8   b 7 8",
           "-m 0660 -Z * /dev/loop8  b 7 8 ",
           "-m 0660 -Z * /dev/loop8  b 7 88",
           "-m 0660 -Z * /dev/loop8  b 7",
           "-m 0660 -Z _ /dev/loop8  b 7 8",
           "-m 0660 /dev/loop8  b 7 8",
           "-m 0660 -Z * /dev/sda  b 8 0",
           "-m 0660 -Z * /dev/mem  c 1 1",
           "-m 0660 -Z * /tmp/loop8  b 7 8",
           "-m 0660 -Z * /dev/../dev/loop8  b 7 8",
           "-m 0660 -Z * /dev/loop-control  b 7 8",
           "-m 0660 -Z * /dev/loop4294967304  b 7 4294967304",
           " -m 0660 -Z * /dev/loop8  b 7 8",
           "-m  0660 -Z * /dev/loop8  b 7 8",
           "",
       }) {
    EXPECT_FALSE(takesMknod(text)) << text;
  }
}

TEST(MknodText, MustBeTerminated) {
  EXPECT_EQ(refusal(PrivilegedOperation::Mknod, "-m 0660 -Z * /dev/loop8  b 7 8"),
            "the text is not terminated");
}

TEST(UmountText, IsADirectoryWithoutTerminator) {
  std::string refusal;

  const auto request = parsePrivilegedRequest(PrivilegedOperation::Umount, kDirectory, refusal);

  ASSERT_TRUE(request && std::holds_alternative<UmountRequest>(*request)) << refusal;
  EXPECT_EQ(std::get<UmountRequest>(*request).directoryName, "tunerempfw");
  EXPECT_FALSE(takesUmount(terminated(kDirectory)));
  EXPECT_FALSE(takesUmount(kPackages + std::string("emps/a\0b", 8)));
  EXPECT_FALSE(takesUmount("-l " + kDirectory));
}

TEST(PrivilegedText, OfAnUnknownOperationIsRefused) {
  for (const int number : {0, 4, 77, 255}) {
    EXPECT_EQ(refusal(static_cast<PrivilegedOperation>(number), terminated(kDirectory)), "unknown operation");
  }
}

// Every text one change away from a good one is refused, or is good for a reason
// that can be named: another allowed name.
TEST(PrivilegedText, OneChangedByteNeverReachesOutside) {
  const std::string good = terminated("-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory);
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = good;
      text[i] = static_cast<char>(byte);
      std::string refusal;

      const auto request = parsePrivilegedRequest(PrivilegedOperation::Mount, text, refusal);

      if (!request) {
        continue;
      }
      const auto& mount = std::get<MountRequest>(*request);
      EXPECT_EQ(terminated("-o ro,loop,nodev,nosuid " + kPackages + mount.imageName + " " + kPackages +
                           "emps/" + mount.directoryName),
                text);
      EXPECT_EQ((mount.imageName + mount.directoryName).find_first_of("/ \n\t"), std::string::npos);
      EXPECT_NE(mount.imageName.front(), '.');
      EXPECT_NE(mount.directoryName.front(), '.');
    }
  }
}

}  // namespace
