// SPDX-License-Identifier: Apache-2.0
// info and image.
#include <sys/stat.h>

#include <filesystem>

#include "fw-pack-test.h"
#include "image-information.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class Descriptions : public PackTest {
 protected:
  static Json::Value json(const std::string& name) {
    Json::Value value;
    std::istringstream(read(name)) >> value;
    return value;
  }
  static ProgramResult layOut(const std::string& type) {
    return run({"image", "image.bin", "--type", type, "--name", "tunerfw", "--version", "2.0.0",
                "--expected-time", "30", "--into", "out"});
  }
};

TEST_F(Descriptions, StateVersionChecksumAndTime) {
  const auto result = run({"info", "image.bin", "--version", "2.0.0", "--expected-time", "30"});

  ASSERT_EQ(result.exitCode, 0) << result.error;
  EXPECT_EQ(json("info.json")["version"].asString(), "2.0.0");
  EXPECT_EQ(json("info.json")["crc"].asUInt(), image::crcOf(image()));
  EXPECT_EQ(json("info.json")["expected_time"].asUInt(), 30U);
}

TEST_F(Descriptions, StateTheClassThatIsGivenAndNoOther) {
  const std::vector<std::string> info = {"info", "image.bin", "--version", "1", "--expected-time", "1"};
  const auto withClass = [&info](const char* given) {
    std::vector<std::string> words = info;
    words.insert(words.end(), {"--class", given});
    return words;
  };

  for (const char* given : {"security", "feature"}) {
    EXPECT_EQ(document(withClass(given))["class"].asString(), given);
    EXPECT_EQ(json("info.json")["class"].asString(), given);
    EXPECT_EQ(document({"inspect", "info.json"})["class"].asString(), given);
  }
  ASSERT_EQ(run(info).exitCode, 0);
  EXPECT_FALSE(json("info.json").isMember("class"));
  const auto odd = run(withClass("urgent"));
  EXPECT_EQ(odd.exitCode, 2);
  EXPECT_THAT(odd.error, HasSubstr("the classes are security, feature"));
}

TEST_F(Descriptions, StateTheClassInFolders) {
  ASSERT_EQ(run({"image", "image.bin", "--type", "sbox", "--name", "tunerfw", "--version", "1",
                 "--expected-time", "1", "--class", "security", "--into", "out"})
                .exitCode,
            0);

  EXPECT_EQ(json("out/tunerfw/info.json")["class"].asString(), "security");
}

TEST_F(Descriptions, StateTheChecksumOfTheKnownCheckValue) {
  write("check.bin", "123456789");

  ASSERT_EQ(run({"info", "check.bin", "--version", "1", "--expected-time", "1", "-o", "x.json"}).exitCode, 0);

  EXPECT_EQ(json("x.json")["crc"].asUInt(), 0x6A50465CU);
}

TEST_F(Descriptions, LieBesideTheImageInAFolderOfTheFirmware) {
  for (const std::string type : {"builtin", "sbox", "usb"}) {
    ASSERT_EQ(layOut(type).exitCode, 0) << type;

    EXPECT_EQ(read("out/tunerfw/tunerfw.bin"), image());
    EXPECT_EQ(json("out/tunerfw/info.json")["crc"].asUInt(), image::crcOf(image()));
    fs::remove_all(std::string(kWork) + "out");
  }
}

TEST_F(Descriptions, LieAtTheTopOfAnExtensionPackage) {
  ASSERT_EQ(layOut("emp").exitCode, 0);

  EXPECT_EQ(read("out/tunerfw.bin"), image());
  EXPECT_TRUE(exists(std::string(kWork) + "out/info.json"));
}

TEST_F(Descriptions, RefuseOddTypesNamesVersionsAndImages) {
  write("empty.bin", "");

  EXPECT_EQ(layOut("floppy").exitCode, 2);
  EXPECT_EQ(run({"image", "image.bin", "--type", "usb", "--name", "../x", "--version", "1", "--expected-time",
                 "1", "--into", "out"})
                .exitCode,
            2);
  EXPECT_EQ(run({"info", "image.bin", "--version", "", "--expected-time", "1"}).exitCode, 2);
  EXPECT_EQ(run({"info", "image.bin", "--version", std::string(128, '1'), "--expected-time", "1"}).exitCode,
            2);
  EXPECT_EQ(run({"info", "image.bin", "--version", "1", "--expected-time", "-1"}).exitCode, 2);
  EXPECT_EQ(run({"info", "empty.bin", "--version", "1", "--expected-time", "1"}).exitCode, 1);
  EXPECT_EQ(run({"info", "absent.bin", "--version", "1", "--expected-time", "1"}).exitCode, 1);
  EXPECT_EQ(run({"info", "/dev/zero", "--version", "1", "--expected-time", "1"}).exitCode, 1);
  EXPECT_THAT(filesInWork(), ElementsAre("empty.bin", "image.bin"));
}

TEST_F(Descriptions, ReplaceFilesAndNothingElse) {
  fs::create_directory(std::string(kWork) + "info.json");
  const auto onDirectory = run({"info", "image.bin", "--version", "1", "--expected-time", "1"});
  fs::create_symlink("image.bin", std::string(kWork) + "link.json");
  const auto onLink = run({"info", "image.bin", "--version", "1", "--expected-time", "1", "-o", "link.json"});
  write("old.json", "old");
  const auto onFile = run({"info", "image.bin", "--version", "1", "--expected-time", "1", "-o", "old.json"});

  EXPECT_THAT(onDirectory.error, HasSubstr("no regular file"));
  EXPECT_THAT(onLink.error, HasSubstr("no regular file"));
  EXPECT_EQ(read("image.bin"), image());
  EXPECT_EQ(onFile.exitCode, 0);
  EXPECT_EQ(json("old.json")["version"].asString(), "1");
}

TEST_F(Descriptions, AreInspectedTogetherWithTheirImage) {
  ASSERT_EQ(layOut("sbox").exitCode, 0);
  const Json::Value good = document({"inspect", "out/tunerfw"});
  write("out/tunerfw/tunerfw.bin", "another image");
  const Json::Value bad = document({"inspect", "out/tunerfw/tunerfw.bin"}, 4);

  EXPECT_EQ(good["kind"].asString(), "image");
  EXPECT_EQ(good["version"].asString(), "2.0.0");
  EXPECT_EQ(good["crc"].asUInt(), image::crcOf(image()));
  EXPECT_TRUE(good["crcMatches"].asBool());
  EXPECT_FALSE(bad["crcMatches"].asBool());
  EXPECT_EQ(document({"inspect", "out/tunerfw/info.json"})["kind"].asString(), "info.json");
}

TEST_F(Descriptions, ThatDoNotFitAreNamedWithAnExitCode) {
  ASSERT_EQ(layOut("sbox").exitCode, 0);
  const std::string valid = read("out/tunerfw/info.json");
  const auto whole = run({"inspect", "out/tunerfw"});
  write("out/tunerfw/info.json", valid.substr(0, valid.size() / 2));
  const auto cutDescription = run({"inspect", "out/tunerfw"});
  write("out/tunerfw/info.json", valid);
  write("out/tunerfw/tunerfw.bin", image().substr(1));
  const auto cutImage = run({"inspect", "out/tunerfw"});
  fs::remove(std::string(kWork) + "out/tunerfw/info.json");
  const auto noDescription = run({"inspect", "out/tunerfw"});
  const auto imageAlone = run({"inspect", "out/tunerfw/tunerfw.bin"});

  EXPECT_EQ(whole.exitCode, 0);
  EXPECT_EQ(whole.error, "");
  EXPECT_EQ(cutDescription.exitCode, 4);
  EXPECT_THAT(cutDescription.error, HasSubstr("out/tunerfw/info.json is damaged"));
  EXPECT_EQ(cutImage.exitCode, 4);
  EXPECT_THAT(cutImage.error, HasSubstr("out/tunerfw/tunerfw.bin is not the image"));
  EXPECT_THAT(cutImage.output, HasSubstr("DIFFERENT"));
  EXPECT_EQ(noDescription.exitCode, 4);
  EXPECT_THAT(noDescription.error, HasSubstr("out/tunerfw/info.json is missing"));
  EXPECT_EQ(imageAlone.exitCode, 0);
}

TEST_F(Descriptions, OfMoreThan64KiBAreNone) {
  ASSERT_EQ(layOut("sbox").exitCode, 0);
  const std::string valid = read("out/tunerfw/info.json");
  write("out/tunerfw/info.json", valid + std::string(65536 - valid.size(), ' '));
  EXPECT_TRUE(document({"inspect", "out/tunerfw"}).isMember("version"));

  write("out/tunerfw/info.json", valid + std::string(65537 - valid.size(), ' '));

  EXPECT_FALSE(document({"inspect", "out/tunerfw"}, 4).isMember("version"));
  EXPECT_EQ(document({"inspect", "out/tunerfw/info.json"}, 4)["kind"].asString(), "image");
}

TEST_F(Descriptions, AndImagesAreNotWaitedForBehindAFifo) {
  ASSERT_EQ(layOut("sbox").exitCode, 0);
  const std::string folder = std::string(kWork) + "out/tunerfw/";
  fs::remove(folder + "info.json");
  ASSERT_EQ(mkfifo((folder + "info.json").c_str(), 0644), 0);

  const Json::Value withoutDescription = document({"inspect", "out/tunerfw"}, 4);
  fs::remove(folder + "tunerfw.bin");
  ASSERT_EQ(mkfifo((folder + "tunerfw.bin").c_str(), 0644), 0);
  const auto fifo = run({"inspect", "out/tunerfw"});
  const auto device = run({"inspect", "/dev/zero"});

  EXPECT_FALSE(withoutDescription.isMember("version"));
  EXPECT_EQ(fifo.exitCode, 1);
  EXPECT_THAT(fifo.error, HasSubstr("tunerfw.bin is no regular file"));
  EXPECT_EQ(device.exitCode, 1);
}

TEST_F(Descriptions, AFileOfBracketsIsAnImageLikeAnyOther) {
  write("brackets.bin", std::string(2000, '['));

  EXPECT_EQ(document({"inspect", "brackets.bin"})["kind"].asString(), "image");
}

}  // namespace
