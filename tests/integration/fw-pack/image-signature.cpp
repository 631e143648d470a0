// SPDX-License-Identifier: Apache-2.0
// image --signing-key, and what verify and inspect say of what it leaves.
#include "fw-pack-test.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class SignedImage : public PackTest {
 protected:
  void SetUp() override {
    PackTest::SetUp();
    writeKeys();
  }

  static ProgramResult layOut(const std::vector<std::string>& words) {
    std::vector<std::string> command = {"image",           "image.bin", "--type",    "sbox",
                                        "--name",          "tunerfw",   "--version", "2.0.0",
                                        "--expected-time", "30",        "--into",    "out"};
    command.insert(command.end(), words.begin(), words.end());
    return run(command);
  }
  static ProgramResult verify(const std::vector<std::string>& words = {}) {
    std::vector<std::string> command = {"verify", "out/tunerfw/tunerfw.bin.sig", "--public-key", "maker.pem"};
    command.insert(command.end(), words.begin(), words.end());
    return run(command);
  }
};

TEST_F(SignedImage, HasItsSignatureBesideIt) {
  const ProgramResult made = layOut({"--signing-key", "maker.key", "--model", "set-7"});

  EXPECT_EQ(made.exitCode, 0) << made.error;
  EXPECT_THAT(made.output, HasSubstr("out/tunerfw/tunerfw.bin.sig, signed with ed25519 key "));
  EXPECT_EQ(read("out/tunerfw/tunerfw.bin"), image());
  EXPECT_EQ(read("out/tunerfw/tunerfw.bin.sig").size(), 598U);
  const ProgramResult verified = verify({"--model", "set-7"});
  EXPECT_EQ(verified.exitCode, 0) << verified.error;
  EXPECT_THAT(verified.output, HasSubstr("the signature is valid for tunerfw 2.0.0 on set-7 (ed25519, key "));
  EXPECT_EQ(verify({"--model", "set-8"}).exitCode, 3);
  EXPECT_EQ(verify({"--name", "otherfw"}).exitCode, 3);
}

TEST_F(SignedImage, IsNotValidOnceOneOfItsFilesIsAnother) {
  for (const std::string name : {"out/tunerfw/tunerfw.bin", "out/tunerfw/info.json"}) {
    ASSERT_EQ(layOut({"--signing-key", "maker.key"}).exitCode, 0);
    write(name, read(name) + " ");

    EXPECT_EQ(verify().exitCode, 3) << name;
  }
}

TEST_F(SignedImage, IsShownByItsSignature) {
  ASSERT_EQ(layOut({"--signing-key", "maker.key"}).exitCode, 0);

  const Json::Value shown = document({"inspect", "out/tunerfw/tunerfw.bin.sig", "--public-key", "maker.pem"});

  EXPECT_EQ(shown["kind"], "image-signature");
  EXPECT_EQ(shown["signature"]["verdict"], "valid");
  EXPECT_EQ(shown["signature"]["for"], "image");
}

TEST_F(SignedImage, StatesNothingWithoutAKey) {
  const ProgramResult refused = layOut({"--model", "set-7"});

  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_THAT(refused.error, HasSubstr("model and minimum version are part of a signature"));
  EXPECT_EQ(layOut({}).exitCode, 0);
  EXPECT_EQ(run({"verify", "out/tunerfw/tunerfw.bin.sig", "--public-key", "maker.pem"}).exitCode, 1);
}

TEST_F(SignedImage, IsNotSignedWithAKeyThatHasNoRoom) {
  ASSERT_EQ(run({"keygen", "rsa-4096", "large.key"}).exitCode, 0);

  EXPECT_THAT(layOut({"--signing-key", "large.key"}).error,
              HasSubstr("cannot be signed with an rsa-4096 key"));
  EXPECT_THAT(filesInWork(), Not(::testing::Contains("out")));
}

}  // namespace
