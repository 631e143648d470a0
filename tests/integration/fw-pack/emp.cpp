// SPDX-License-Identifier: Apache-2.0
// emp.
#include <filesystem>

#include "fw-pack-test.h"
#include "image-information.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;

class ExtensionPackage : public PackTest {
 protected:
  static ProgramResult make(const std::string& output, const std::string& id = "tunerempfw",
                            const std::vector<std::string>& options = {"--unsigned"}) {
    std::vector<std::string> command = {"emp",   "image.bin",       "--id", id,   "--version",
                                        "2.0.0", "--expected-time", "30",   "-o", output};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }
};

TEST_F(ExtensionPackage, HoldsImageAndDescription) {
  ASSERT_EQ(make("tunerempfw.img").exitCode, 0);

  const Json::Value package = document({"inspect", "tunerempfw.img"});
  EXPECT_EQ(package["kind"].asString(), "emp-image");
  EXPECT_EQ(package["image"].asString(), "tunerfw.bin");
  EXPECT_EQ(package["version"].asString(), "2.0.0");
  EXPECT_EQ(package["imageCrc"].asUInt(), image::crcOf(image()));
  EXPECT_EQ(package["imageSize"].asUInt(), image().size());
  EXPECT_TRUE(package["crcMatches"].asBool());
}

TEST_F(ExtensionPackage, HasTheSameBytesForTheSameInput) {
  ASSERT_EQ(make("one.img").exitCode, 0);
  fs::last_write_time(std::string(kWork) + "image.bin", fs::file_time_type());
  fs::permissions(std::string(kWork) + "image.bin", fs::perms(0600));
  const std::string again =
      "umask 077; SOURCE_DATE_EPOCH=5 TZ=Asia/Tokyo " FW_PACK_PROGRAM
      " emp image.bin --id tunerempfw --version 2.0.0 --expected-time 30 --unsigned -o two.img";
  ASSERT_EQ(runProgram({{"sh", "-c", again}, kWork, 0, {}}).exitCode, 0);

  EXPECT_EQ(read("one.img"), read("two.img"));
}

TEST_F(ExtensionPackage, HasOtherBytesForAnotherImage) {
  ASSERT_EQ(make("one.img").exitCode, 0);
  write("image.bin", "another image");
  ASSERT_EQ(make("two.img").exitCode, 0);

  EXPECT_NE(read("one.img"), read("two.img"));
}

TEST_F(ExtensionPackage, IsNotMadeWhenMksquashfsFails) {
  for (const std::string end : {"echo no space; exit 1", "echo no space; kill -9 $$"}) {
    write("bin/mksquashfs", "#!/bin/sh\n" + end + "\n", 0755);
    const ProgramResult made = runProgram(
        {{"sh", "-c",
          "PATH=/tmp/maker/bin:$PATH exec " FW_PACK_PROGRAM
          " emp image.bin --id tunerempfw --version 1 --expected-time 1 --unsigned -o tunerempfw.img"},
         kWork,
         0,
         {}});
    EXPECT_EQ(made.exitCode, 1) << end;
    EXPECT_THAT(made.error, testing::HasSubstr("mksquashfs failed: no space")) << end;
    EXPECT_FALSE(exists(std::string(kWork) + "tunerempfw.img")) << end;
  }
}

TEST_F(ExtensionPackage, NeedsAnIdentifierThatTheLibraryTakes) {
  EXPECT_EQ(make("x.img", "tunerfw").exitCode, 2);
  EXPECT_EQ(make("x.img", "emp").exitCode, 2);
  EXPECT_EQ(make("x.img", "tuner-empfw").exitCode, 2);
  EXPECT_THAT(filesInWork(), ElementsAre("image.bin"));
}

TEST_F(ExtensionPackage, IsNamedAfterItsIdentifier) {
  ASSERT_EQ(
      run({"emp", "image.bin", "--id", "tunerempfw", "--version", "1", "--expected-time", "1", "--unsigned"})
          .exitCode,
      0);

  EXPECT_THAT(filesInWork(), ElementsAre("image.bin", "tunerempfw.img"));
}

TEST_F(ExtensionPackage, IsSignedUnlessItIsSaidThatItIsNotToBe) {
  writeKeys();

  const ProgramResult neither = make("x.img", "tunerempfw", {});
  const ProgramResult both = make("x.img", "tunerempfw", {"--unsigned", "--signing-key", "maker.key"});
  const ProgramResult stated = make("x.img", "tunerempfw", {"--unsigned", "--minimum-version", "1.0"});

  EXPECT_EQ(neither.exitCode, 2);
  EXPECT_EQ(neither.error,
            "fw-pack: sign the package with --signing-key FILE, or say that it is to be --unsigned\n");
  EXPECT_EQ(both.exitCode, 2);
  EXPECT_EQ(stated.exitCode, 2);
  EXPECT_FALSE(exists(std::string(kWork) + "x.img"));
}

TEST_F(ExtensionPackage, CarriesASignatureBehindItsImage) {
  writeKeys();
  ASSERT_EQ(make("tunerempfw.img", "tunerempfw", {"--unsigned"}).exitCode, 0);
  const std::string squashfs = read("tunerempfw.img");

  const ProgramResult made =
      make("tunerempfw.img", "tunerempfw",
           {"--signing-key", "maker.key", "--model", "tv-7", "--minimum-version", "1.5"});

  ASSERT_EQ(made.exitCode, 0) << made.error;
  EXPECT_THAT(made.output, ::testing::MatchesRegex("tunerempfw.img, signed with ed25519 key [0-9a-f]{16}\n"));
  const std::string package = read("tunerempfw.img");
  ASSERT_EQ(package.size(), squashfs.size() + fwpackage::kTrailerSize);
  EXPECT_TRUE(package.compare(0, squashfs.size(), squashfs) == 0);
  const Json::Value signature = document({"verify", "tunerempfw.img", "--public-key", "maker.pem", "--json"});
  EXPECT_TRUE(signature["valid"].asBool());
  EXPECT_EQ(signature["for"], "extension-package");
  EXPECT_EQ(signature["name"], "tunerempfw");
  EXPECT_EQ(signature["model"], "tv-7");
  EXPECT_EQ(signature["version"], "2.0.0");
  EXPECT_EQ(signature["minimumVersion"], "1.5");
}

TEST_F(ExtensionPackage, HasTheSameBytesForTheSameInputAndKey) {
  writeKeys();
  ASSERT_EQ(make("one.img", "tunerempfw", {"--signing-key", "maker.key"}).exitCode, 0);
  ASSERT_EQ(make("two.img", "tunerempfw", {"--signing-key", "maker.key"}).exitCode, 0);

  EXPECT_EQ(read("one.img"), read("two.img"));
}

TEST_F(ExtensionPackage, IsShownWithItsSignature) {
  writeKeys();
  ASSERT_EQ(make("tunerempfw.img", "tunerempfw", {"--signing-key", "maker.key"}).exitCode, 0);
  const auto verdict = [](const std::string& file) {
    return document({"inspect", file, "--public-key", "maker.pem"})["signature"]["verdict"].asString();
  };

  EXPECT_EQ(verdict("tunerempfw.img"), "valid");
  EXPECT_TRUE(document({"inspect", "tunerempfw.img"})["crcMatches"].asBool());
  fs::copy_file(std::string(kWork) + "tunerempfw.img", std::string(kWork) + "wifiempfw.img");
  EXPECT_EQ(verdict("wifiempfw.img"), "other-name");
  EXPECT_EQ(run({"verify", "wifiempfw.img", "--public-key", "maker.pem"}).exitCode, 3);
  ASSERT_EQ(make("tunerempfw.img").exitCode, 0);
  EXPECT_EQ(verdict("tunerempfw.img"), "no-trailer");
}

// Each byte is signed, those of the image and those of the trailer.
TEST_F(ExtensionPackage, IsRefusedWithAnyByteAltered) {
  writeKeys();
  ASSERT_EQ(make("tunerempfw.img", "tunerempfw", {"--signing-key", "maker.key"}).exitCode, 0);
  const std::string package = read("tunerempfw.img");
  for (const std::size_t at : {std::size_t{96}, package.size() / 2, package.size() - 535,
                               package.size() - 514, package.size() - 400, package.size() - 1}) {
    std::string altered = package;
    altered[at] = static_cast<char>(altered[at] ^ 1);
    write("tunerempfw.img", altered);

    EXPECT_EQ(run({"verify", "tunerempfw.img", "--public-key", "maker.pem"}).exitCode, 3) << at;
  }
}

}  // namespace
