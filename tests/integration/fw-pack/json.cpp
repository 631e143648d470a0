// SPDX-License-Identifier: Apache-2.0
// What each command answers when it is asked for JSON.
#include "fw-pack-test.h"
#include "image-information.h"

namespace {

using ::testing::HasSubstr;

const std::vector<std::string> kFacts = {"--version", "2.0.0", "--expected-time", "30"};

std::vector<std::string> with(std::vector<std::string> words, const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

void expectDone(const Json::Value& document, const char* command) {
  EXPECT_EQ(document["command"], command);
  EXPECT_EQ(document["ok"], true);
  EXPECT_EQ(document["outcome"], "ok");
  EXPECT_EQ(document["exitCode"], 0);
}

using PackJson = PackTest;

TEST_F(PackJson, TellsWhatADescriptionSays) {
  const Json::Value info = document(with({"info", "image.bin"}, kFacts));

  expectDone(info, "info");
  EXPECT_EQ(info["output"], "info.json");
  EXPECT_EQ(info["version"], "2.0.0");
  EXPECT_EQ(info["crc"].asUInt(), image::crcOf(image()));
  EXPECT_EQ(info["expectedTime"], 30);
}

TEST_F(PackJson, TellsWhereAnImageWasLaidOut) {
  const Json::Value laidOut =
      document(with({"image", "image.bin", "--type", "sbox", "--name", "tunerfw", "--into", "out"}, kFacts));

  expectDone(laidOut, "image");
  EXPECT_EQ(laidOut["image"], "out/tunerfw/tunerfw.bin");
  EXPECT_EQ(laidOut["information"], "out/tunerfw/info.json");
  EXPECT_EQ(laidOut["directory"], "out");
  EXPECT_EQ(laidOut["place"], "/opt/usr/share/sbox");
}

TEST_F(PackJson, TellsWhoSignedAPackage) {
  writeKeys();
  const Json::Value extension =
      document(with({"emp", "image.bin", "--id", "tunerempfw", "--signing-key", "maker.key"}, kFacts));
  const Json::Value usb = document(usbCommand());

  expectDone(extension, "emp");
  EXPECT_EQ(extension["output"], "tunerempfw.img");
  EXPECT_EQ(extension["signed"], true);
  expectDone(usb, "usb");
  EXPECT_EQ(usb["output"], "tunerfw.bin");
  for (const Json::Value& made : {extension, usb}) {
    EXPECT_EQ(made["algorithm"], "ed25519");
    EXPECT_EQ(made["keyId"].asString().size(), 16U);
  }
  const Json::Value shown = document({"verify", "tunerfw.bin", "--public-key", "maker.pem"});
  expectDone(shown, "verify");
  EXPECT_EQ(shown["keyId"], usb["keyId"]);
}

TEST_F(PackJson, TellsThatAPackageIsNotSigned) {
  const Json::Value made = document(with({"emp", "image.bin", "--id", "tunerempfw", "--unsigned"}, kFacts));

  EXPECT_EQ(made["signed"], false);
  EXPECT_FALSE(made.isMember("keyId"));
}

TEST_F(PackJson, TellsWhereKeysAre) {
  const Json::Value secret = document({"keygen", "package", "new.key"});
  const Json::Value pair = document({"keygen", "ed25519", "new-maker.key"});

  expectDone(secret, "keygen");
  EXPECT_EQ(secret["secretKey"], "new.key");
  EXPECT_FALSE(secret.isMember("publicKey"));
  EXPECT_EQ(pair["secretKey"], "new-maker.key");
  EXPECT_EQ(pair["publicKey"], "new-maker.key.pem");
  EXPECT_EQ(pair["algorithm"], "ed25519");
}

TEST_F(PackJson, TellsWhatFailed) {
  const Json::Value failed = document(with({"info", "absent.bin"}, kFacts), 1);
  const Json::Value usage = document({"keygen", "stone", "new.key"}, 2);
  const Json::Value refused = document({"verify", "image.bin"}, 3);

  EXPECT_EQ(failed["outcome"], "failed");
  EXPECT_EQ(failed["ok"], false);
  EXPECT_THAT(failed["message"].asString(), HasSubstr("absent.bin"));
  EXPECT_EQ(usage["outcome"], "usage");
  EXPECT_THAT(usage["message"].asString(), HasSubstr("the kinds of key are"));
  EXPECT_EQ(usage["remedy"], "Try: fw-pack keygen --help");
  EXPECT_EQ(refused["outcome"], "refused");
  EXPECT_EQ(refused["exitCode"], 3);
  EXPECT_EQ(refused["file"], "image.bin");
  EXPECT_EQ(refused["valid"], false);
}

}  // namespace
