// SPDX-License-Identifier: Apache-2.0
// The system that a device stands on, as its marker keeps it.
#include "device-system.h"

#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "outcome.h"
#include "tool-location.h"

namespace {

namespace fs = std::filesystem;
using fwdevice::chooseSystem;
using fwdevice::DeviceSystem;
using fwdevice::Failure;
using fwdevice::Outcome;
using fwdevice::parseSystem;
using fwdevice::systemText;
using ::testing::HasSubstr;

bool isSame(const DeviceSystem& one, const DeviceSystem& other) {
  return one.root == other.root && one.build == other.build;
}

// Directories of its own, one of which serves as a root file system and one as a build.
class DeviceSystems : public ::testing::Test {
 protected:
  DeviceSystems() {
    char name[] = "/tmp/device-system-XXXXXX";
    directory_ = mkdtemp(name);
    fs::create_directories(root() + "/bin");
    fs::create_directories(build() + "/bin");
  }
  ~DeviceSystems() override { fs::remove_all(directory_); }

  std::string root() const { return directory_ + "/root"; }
  std::string build() const { return directory_ + "/build"; }

  // A program's first bytes: 20, up to its processor.
  static void putProgram(const std::string& path, unsigned char bits, unsigned char order,
                         unsigned char processor, unsigned char kind = ET_DYN) {
    std::string start =
        "\x7F"
        "ELF";
    start += {static_cast<char>(bits), static_cast<char>(order)};
    start.resize(EI_NIDENT, '\0');
    start += {static_cast<char>(kind), '\0', static_cast<char>(processor), '\0'};
    std::ofstream(path, std::ios::binary) << start;
  }

  // Why the build's programs are refused on the root; empty when they are not.
  std::string refusal() const {
    try {
      chooseSystem({root(), build()}, {});
    } catch (const Failure& failure) {
      EXPECT_TRUE(failure.ending() == frame::Ending(Outcome::Usage));
      return failure.what();
    }
    return "";
  }

 private:
  std::string directory_;
};

TEST_F(DeviceSystems, AreReadAsTheyWereWritten) {
  for (const DeviceSystem& system : {DeviceSystem{}, DeviceSystem{"/a root", ""},
                                     DeviceSystem{"", "/a = build"}, DeviceSystem{"/r", "/b"}}) {
    EXPECT_TRUE(isSame(parseSystem("A sentence.\n" + systemText(system)), system)) << systemText(system);
  }
  EXPECT_EQ(systemText({"/r", "/b"}), "root = /r\nbuild = /b\n");
  EXPECT_EQ(systemText({}), "");
}

TEST_F(DeviceSystems, AreNotReadFromOtherLines) {
  EXPECT_TRUE(isSame(parseSystem("see root = /x\nroot=/y\n build = /z\n"), {}));
}

TEST_F(DeviceSystems, AreTheHostsAtFirst) {
  EXPECT_TRUE(isSame(chooseSystem({}, {}), {}));
}

TEST_F(DeviceSystems, StayUntilOthersAreWanted) {
  const DeviceSystem present = {root(), build()};

  EXPECT_TRUE(isSame(chooseSystem({}, present), present));
  EXPECT_TRUE(isSame(chooseSystem({root() + "/bin", ""}, present), {root() + "/bin", build()}));
  EXPECT_TRUE(isSame(chooseSystem({"", root()}, present), {root(), root()}));
  EXPECT_TRUE(isSame(chooseSystem({"/", ""}, present), {}));
  EXPECT_TRUE(isSame(chooseSystem({"/", build()}, present), {"", build()}));
}

TEST_F(DeviceSystems, HaveAbsolutePaths) {
  const auto before = fs::current_path();
  fs::current_path(root());

  const DeviceSystem chosen = chooseSystem({".", "../build/."}, {});

  fs::current_path(before);
  EXPECT_TRUE(isSame(chosen, {fs::canonical(root()), fs::canonical(build())}))
      << chosen.root << " " << chosen.build;
}

TEST_F(DeviceSystems, AreRefusedWithoutTheirDirectories) {
  std::ofstream(root() + "/file").flush();
  for (const std::string& path : {root() + "/missing", root() + "/file"}) {
    for (const DeviceSystem& wanted : {DeviceSystem{path, ""}, DeviceSystem{"", path}}) {
      const std::string option = wanted.root.empty() ? "--build " : "--root ";
      try {
        chooseSystem(wanted, {});
        ADD_FAILURE() << option << path;
      } catch (const Failure& failure) {
        EXPECT_TRUE(failure.ending() == frame::Ending(Outcome::Usage));
        EXPECT_EQ(failure.what(), option + path + ": there is no such directory");
      }
    }
  }
}

TEST_F(DeviceSystems, HaveProgramsAndAShellOfOneProcessor) {
  putProgram(build() + "/bin/fw-device", ELFCLASS64, ELFDATA2LSB, EM_X86_64);
  putProgram(root() + "/bin/sh", ELFCLASS64, ELFDATA2LSB, EM_X86_64, ET_EXEC);
  EXPECT_EQ(refusal(), "");

  putProgram(root() + "/bin/sh", ELFCLASS32, ELFDATA2LSB, EM_X86_64);
  EXPECT_THAT(refusal(), HasSubstr("are for another processor than those of " + root()));
  putProgram(root() + "/bin/sh", ELFCLASS64, ELFDATA2MSB, EM_X86_64);
  EXPECT_THAT(refusal(), HasSubstr("another processor"));
  putProgram(root() + "/bin/sh", ELFCLASS64, ELFDATA2LSB, EM_386);
  EXPECT_THAT(refusal(), HasSubstr("; name a build for it with --build"));
}

TEST_F(DeviceSystems, MayHaveAShellOrProgramsThatTellNoProcessor) {
  putProgram(build() + "/bin/fw-device", ELFCLASS64, ELFDATA2LSB, EM_X86_64);
  EXPECT_EQ(refusal(), "") << "no shell";
  std::ofstream(root() + "/bin/sh") << "#!/bin/busybox sh, which is a script\n";
  EXPECT_EQ(refusal(), "");
  std::ofstream(root() + "/bin/sh") << "\x7F"
                                       "ELF";
  EXPECT_EQ(refusal(), "") << "cut off";

  putProgram(root() + "/bin/sh", ELFCLASS32, ELFDATA2LSB, EM_386);
  fs::remove(build() + "/bin/fw-device");
  EXPECT_EQ(refusal(), "") << "no program";
}

TEST(ToolLocation, IsThatOfThisProgram) {
  EXPECT_EQ(fwdevice::toolDirectory(), fs::canonical("/proc/self/exe").parent_path());
  EXPECT_EQ(fwdevice::programDirectory({}), fwdevice::toolDirectory());
  EXPECT_EQ(fwdevice::programDirectory({"/r", "/b"}), "/b/bin");
}

TEST(ToolLocation, TellsWhereModulesAndTheVerifierAre) {
  EXPECT_THAT(
      fwdevice::moduleDirectories("/b/bin"),
      ::testing::ElementsAre("/b/modules", "/b/lib/anywhere/fw-update/modules", "/b/lib/fw-update/modules"));
  EXPECT_EQ(fwdevice::verifierPath("/b/bin"), "/b/lib/libkZAQUser.so");
}

}  // namespace
