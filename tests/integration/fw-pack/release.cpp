// SPDX-License-Identifier: Apache-2.0
// release, and what verify and inspect say of its list.
#include <filesystem>

#include "fw-pack-test.h"
#include "release-list.h"

namespace fs = std::filesystem;

namespace {

using ::testing::HasSubstr;

class Release : public PackTest {
 protected:
  void SetUp() override {
    PackTest::SetUp();
    writeKeys();
    fs::create_directories(std::string(kWork) + "in");
  }

  static void made(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    const ProgramResult result = run(words);
    ASSERT_EQ(result.exitCode, 0) << result.error;
  }
  static void addPackage(const std::vector<std::string>& more = {}) {
    made({"emp", "image.bin", "--id", "tunerempfw", "--version", "2.0.0", "--expected-time", "30",
          "--signing-key", "maker.key", "-o", "in/tunerempfw.img"},
         more);
  }
  static void addUsb(const std::string& name = "wififw", const std::vector<std::string>& more = {}) {
    made({"usb", "image.bin", "--version", "4.0.0", "--key-file", "package.key", "--signing-key", "maker.key",
          "-o", "in/" + name + ".bin"},
         more);
  }
  static void addImage(const std::vector<std::string>& more = {"--signing-key", "maker.key"}) {
    made({"image", "image.bin", "--type", "sbox", "--name", "panelfw", "--version", "3.0.0",
          "--expected-time", "30", "--into", "in"},
         more);
  }
  static std::vector<std::string> command() {
    return {"release",       "in",
            "--number",      "7",
            "--issued",      "2026-11-22T12:00:00Z",
            "--expires",     "2026-12-22T12:00:00Z",
            "--signing-key", "maker.key",
            "--into",        "out"};
  }
  // Nothing is left of a release that is refused.
  static void expectRefused(const std::string& sentence) {
    const ProgramResult refused = run(command());
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.error, HasSubstr(sentence));
    EXPECT_FALSE(fs::exists(std::string(kWork) + "out"));
  }
  static image::ReleaseList list() {
    const auto result = image::parseReleaseList(read("out/releases.json"));
    EXPECT_EQ(result.problem, "");
    return result.list.value_or(image::ReleaseList());
  }
  static Json::Value upload() {
    Json::Value value;
    std::istringstream(read("out/upload.json")) >> value;
    return value;
  }
};

TEST_F(Release, HasAListOfWhatIsSigned) {
  addPackage({"--model", "set-7", "--minimum-version", "1.5.0"});
  addUsb();
  addImage();

  const ProgramResult released = run(command());

  ASSERT_EQ(released.exitCode, 0) << released.error;
  EXPECT_THAT(released.output, HasSubstr("panelfw 3.0.0\ntunerfw 2.0.0 on set-7\nwififw 4.0.0\n"
                                         "out/releases.json, number 7, signed with ed25519 key "));
  const image::ReleaseList list = this->list();
  EXPECT_EQ(list.number, 7);
  EXPECT_EQ(image::timeText(list.issued), "2026-11-22T12:00:00Z");
  EXPECT_EQ(image::timeText(list.expires), "2026-12-22T12:00:00Z");
  ASSERT_EQ(list.components.size(), 3U);
  EXPECT_EQ(list.components[0].name, "panelfw");
  EXPECT_EQ(list.components[0].artifacts.size(), 3U);
  EXPECT_EQ(list.components[1].name, "tunerfw");
  EXPECT_EQ(list.components[1].model, "set-7");
  EXPECT_EQ(list.components[1].minimumVersion, "1.5.0");
  EXPECT_EQ(list.components[2].version, "4.0.0");
  for (const image::ReleaseComponent& component : list.components) {
    for (const image::ReleaseArtifact& artifact : component.artifacts) {
      EXPECT_EQ(fwpack::sha256Of(std::string(kWork) + "out/artifacts/" + artifact.sha256), artifact.sha256);
    }
  }
}

// Their files' names are in another order.
TEST_F(Release, ListsComponentsByTheirNames) {
  addPackage();
  addUsb("tunerff");

  const ProgramResult released = run(command());

  EXPECT_THAT(released.output, HasSubstr("tunerff 4.0.0\ntunerfw 2.0.0\n")) << released.error;
}

TEST_F(Release, IsTheSameEachTime) {
  addPackage();
  ASSERT_EQ(run(command()).exitCode, 0);
  const std::string list = read("out/releases.json");
  const std::string signature = read("out/releases.json.sig");
  fs::remove_all(std::string(kWork) + "out");

  ASSERT_EQ(run(command()).exitCode, 0);

  EXPECT_EQ(read("out/releases.json"), list);
  EXPECT_EQ(read("out/releases.json.sig"), signature);
  EXPECT_EQ(signature.size(), 534U);
}

TEST_F(Release, SaysWhatIsToBeUploaded) {
  addPackage();
  addImage();
  ASSERT_EQ(run(command()).exitCode, 0);

  const Json::Value upload = this->upload();

  EXPECT_EQ(upload["format"], 1);
  EXPECT_EQ(upload["distributionSet"]["name"], "releases");
  EXPECT_EQ(upload["distributionSet"]["version"], "7");
  EXPECT_EQ(upload["distributionSet"]["softwareModules"][0]["name"], "panelfw");
  EXPECT_EQ(upload["distributionSet"]["softwareModules"][1]["version"], "2.0.0");
  const Json::Value artifacts = upload["softwareModules"][0]["artifacts"];
  ASSERT_EQ(artifacts.size(), 3U);
  EXPECT_EQ(artifacts[0]["filename"], "panelfw.bin");
  EXPECT_EQ(artifacts[1]["filename"], "info.json");
  EXPECT_EQ(artifacts[2]["filename"], "panelfw.bin.sig");
  EXPECT_EQ(read("out/" + artifacts[0]["path"].asString()), image());
  const Json::Value files = upload["files"];
  ASSERT_EQ(files.size(), 6U);
  for (const Json::Value& file : files) {
    EXPECT_TRUE(fs::is_regular_file(kWork + ("out/" + file.asString()))) << file;
  }
  EXPECT_EQ(files[4], "releases.json.sig");
  EXPECT_EQ(files[5], "releases.json");
}

TEST_F(Release, IsAnsweredWithADocument) {
  addUsb();

  const Json::Value document = PackTest::document(command());

  EXPECT_EQ(document["list"], "out/releases.json");
  EXPECT_EQ(document["signature"], "out/releases.json.sig");
  EXPECT_EQ(document["upload"], "out/upload.json");
  EXPECT_EQ(document["number"], 7);
  EXPECT_EQ(document["expires"], "2026-12-22T12:00:00Z");
  EXPECT_EQ(document["algorithm"], "ed25519");
  EXPECT_EQ(document["components"][0]["name"], "wififw");
}

TEST_F(Release, IsVerifiedAndInspected) {
  addUsb();
  ASSERT_EQ(run(command()).exitCode, 0);

  for (const std::string name : {"out/releases.json", "out/releases.json.sig"}) {
    const ProgramResult verified = run({"verify", name, "--public-key", "maker.pem"});
    EXPECT_EQ(verified.exitCode, 0) << verified.error;
    EXPECT_THAT(verified.output, HasSubstr("the signature is valid for releases 7 (ed25519, key "));
  }
  const Json::Value shown = document({"inspect", "out/releases.json", "--public-key", "maker.pem"});
  EXPECT_EQ(shown["kind"], "release-list");
  EXPECT_EQ(shown["number"], 7);
  EXPECT_EQ(shown["expires"], "2026-12-22T12:00:00Z");
  EXPECT_EQ(shown["signature"]["verdict"], "valid");
  EXPECT_EQ(shown["signature"]["for"], "release-list");
  EXPECT_EQ(shown["components"][0]["artifacts"][0]["file"], "wififw.bin");

  write("out/releases.json", read("out/releases.json") + " ");
  EXPECT_EQ(run({"verify", "out/releases.json", "--public-key", "maker.pem"}).exitCode, 3);
  fs::remove(std::string(kWork) + "out/releases.json.sig");
  EXPECT_EQ(run({"verify", "out/releases.json", "--public-key", "maker.pem"}).exitCode, 1);
}

TEST_F(Release, ThatNoSetWouldReadIsDamaged) {
  addUsb();
  ASSERT_EQ(run(command()).exitCode, 0);
  std::string text = read("out/releases.json");
  write("out/releases.json", text.replace(text.rfind("wififw"), 6, "wi-ifw"));

  const ProgramResult shown = run({"inspect", "out/releases.json", "--public-key", "maker.pem"});

  EXPECT_EQ(shown.exitCode, 4);
  EXPECT_THAT(shown.error, HasSubstr("is no list that a set uses: a component has no name of firmware."));
}

TEST_F(Release, NeedsSomething) {
  expectRefused("in holds nothing to release");
  fs::remove(std::string(kWork) + "in");
  expectRefused("in is no directory");
}

TEST_F(Release, TakesNoOtherFile) {
  addUsb();
  write("in/README", "");
  expectRefused("in/README is neither a package (*.img, *.bin) nor the folder of an image");
}

TEST_F(Release, TakesNothingUnsigned) {
  write("in/wififw.bin", image());
  expectRefused("in/wififw.bin: the file does not end with a signature trailer");
}

TEST_F(Release, TakesNothingThatWasChanged) {
  addUsb();
  std::string content = read("in/wififw.bin");
  content[100] = static_cast<char>(content[100] ^ 1);
  write("in/wififw.bin", content);
  expectRefused("in/wififw.bin: the signature does not match the content");
}

TEST_F(Release, TakesNothingForAnotherComponent) {
  addUsb("otherfw", {"--name", "wififw"});
  expectRefused("in/otherfw.bin is signed for wififw; give it its own name again");
}

TEST_F(Release, TakesNothingOfAnotherKindThanItsName) {
  addPackage();
  fs::rename(std::string(kWork) + "in/tunerempfw.img", std::string(kWork) + "in/tunerempfw.bin");
  expectRefused("in/tunerempfw.bin is an extension package, and is not called *.img");
}

TEST_F(Release, TakesNothingOfTheOldFormat) {
  addUsb("wififw", {"--format", "1"});
  expectRefused("in/wififw.bin has a signature that states no version; make it with a newer fw-pack");
}

TEST_F(Release, TakesNoTwoForAComponent) {
  addPackage();
  addUsb("tunerfw");
  expectRefused("in/tunerempfw.img and in/tunerfw.bin are both for tunerfw; a release has one of them");
}

TEST_F(Release, TakesNoImageWithoutItsFiles) {
  addImage({});
  expectRefused("in/panelfw/panelfw.bin.sig is missing: an image needs its info.json and its signature");
  addImage();
  write("in/panelfw/other", "");
  expectRefused("in/panelfw/other is no part of the image; take it away");
}

// Signed as one version, described as another.
TEST_F(Release, TakesNoTwoVersionsOfAnImage) {
  addImage();
  const fwpack::SigningKey& key = testSigningKey("ed25519");
  fwpackage::Statements statements = statementsFor("panelfw");
  statements.kind = fwpackage::Kind::Image;
  statements.version = "3.1.0";
  const std::string folder = std::string(kWork) + "in/panelfw/";
  fwpack::writeImageSignature(folder + "panelfw.bin", folder + "info.json", key, statements);

  expectRefused("in/panelfw/panelfw.bin.sig: its signature says version 3.1.0, and its info.json 3.0.0");
}

TEST_F(Release, TakesNoImageWhoseDescriptionIsNone) {
  addImage();
  write("in/panelfw/info.json", "{}");
  fwpackage::Statements statements = statementsFor("panelfw");
  statements.kind = fwpackage::Kind::Image;
  const std::string folder = std::string(kWork) + "in/panelfw/";
  fwpack::writeImageSignature(folder + "panelfw.bin", folder + "info.json", testSigningKey("ed25519"),
                              statements);

  expectRefused("in/panelfw/panelfw.bin.sig has no valid info.json");
}

TEST_F(Release, TakesNoTwoVersionsOfAPackage) {
  addPackage();
  const std::string package = read("in/tunerempfw.img");
  fwpackage::Statements statements = statementsFor("tunerempfw");
  statements.kind = fwpackage::Kind::ExtensionPackage;
  statements.version = "2.1.0";
  write("in/tunerempfw.img",
        signedFile(package.substr(0, package.size() - 534), testSigningKey("ed25519"), statements));

  expectRefused("in/tunerempfw.img: its signature says version 2.1.0, and its info.json 2.0.0");
}

TEST_F(Release, TakesTheKeysThatItIsTold) {
  ASSERT_EQ(run({"keygen", "ed25519", "list.key"}).exitCode, 0);
  addUsb();
  std::vector<std::string> words = command();
  words[9] = "list.key";
  const ProgramResult refused = run(words);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.error,
              HasSubstr("in/wififw.bin is signed with another key; name its public half with --public-key"));

  words.insert(words.end(), {"--public-key", "maker.pem"});
  EXPECT_EQ(run(words).exitCode, 0);
  EXPECT_EQ(run({"verify", "out/releases.json", "--public-key", "list.key.pem"}).exitCode, 0);
}

TEST_F(Release, ReplacesNothingButAReleaseList) {
  addUsb();
  write("out/releases.json", "{}");

  const ProgramResult result = run(command());

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.error, "fw-pack: out/releases.json is there already, and is no release list\n");
  EXPECT_EQ(read("out/releases.json"), "{}");
}

// Such as the minute that it was made in: 202611221200.
TEST_F(Release, HasAnyNumberThatSetsTake) {
  addUsb();
  std::vector<std::string> words = command();
  for (const char* const number : {"1", "999999999999"}) {
    words[3] = number;

    ASSERT_EQ(run(words).exitCode, 0);

    EXPECT_EQ(std::to_string(list().number), number);
    EXPECT_EQ(run({"verify", "out/releases.json", "--public-key", "maker.pem"}).exitCode, 0);
  }
  for (const char* const number : {"0", "1000000000000", "-1", "seven"}) {
    words[3] = number;

    EXPECT_EQ(run(words).exitCode, 2) << number;
  }
  EXPECT_EQ(list().number, 999999999999);
}

TEST_F(Release, IsNewerThanTheOneBefore) {
  addUsb();
  ASSERT_EQ(run(command()).exitCode, 0);
  const std::string before = read("out/releases.json");

  const ProgramResult again = run(command());

  EXPECT_EQ(again.exitCode, 1);
  EXPECT_THAT(again.error, HasSubstr("out/releases.json has number 7 and was issued at 2026-11-22T12:00:00Z: "
                                     "sets refuse a list that is not newer"));
  EXPECT_EQ(read("out/releases.json"), before);
}

TEST_F(Release, ExpiresAfterItWasIssued) {
  addUsb();
  std::vector<std::string> words = command();
  words[7] = "2026-11-22T12:00:00Z";

  const ProgramResult refused = run(words);

  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.error, HasSubstr("sets would refuse this list: it expires before it was issued"));
  words[7] = "tomorrow";
  EXPECT_EQ(run(words).exitCode, 2);
}

}  // namespace
