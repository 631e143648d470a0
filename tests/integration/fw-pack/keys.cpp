// SPDX-License-Identifier: Apache-2.0
// keygen, and how key files are read.
#include <sys/stat.h>

#include <filesystem>

#include "fw-pack-test.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Keys : public PackTest {
 protected:
  static unsigned int modeOf(const std::string& name) {
    struct stat status = {};
    stat((kWork + name).c_str(), &status);
    return status.st_mode & 07777U;
  }
};

TEST_F(Keys, AreOfTheKindsThatTheHelpNames) {
  EXPECT_THAT(run({"keygen", "--help"}).output, HasSubstr(" package, rsa-4096, ed25519 or rsa-3072\n"));
  EXPECT_THAT(run({"keygen", "odd", "odd.key"}).error,
              HasSubstr("the kinds of key are package, rsa-4096, ed25519, rsa-3072"));
}

TEST_F(Keys, AreMadeSecret) {
  ASSERT_EQ(run({"keygen", "package", "package.key"}).exitCode, 0);
  ASSERT_EQ(run({"keygen", "ed25519", "maker.key"}).exitCode, 0);

  EXPECT_EQ(read("package.key").size(), 32U);
  EXPECT_EQ(modeOf("package.key"), 0600U);
  EXPECT_EQ(modeOf("maker.key"), 0600U);
  EXPECT_THAT(read("maker.key"), HasSubstr("BEGIN PRIVATE KEY"));
  EXPECT_THAT(read("maker.key.pem"), HasSubstr("BEGIN PUBLIC KEY"));
}

TEST_F(Keys, DifferEachTime) {
  ASSERT_EQ(run({"keygen", "package", "one"}).exitCode, 0);
  ASSERT_EQ(run({"keygen", "package", "two"}).exitCode, 0);

  EXPECT_NE(read("one"), read("two"));
}

TEST_F(Keys, AreNeverOverwritten) {
  write("maker.key", "precious");
  EXPECT_EQ(run({"keygen", "ed25519", "maker.key"}).exitCode, 1);
  EXPECT_EQ(run({"keygen", "package", "maker.key"}).exitCode, 1);
  EXPECT_EQ(read("maker.key"), "precious");

  write("other.pem", "precious");
  EXPECT_EQ(run({"keygen", "ed25519", "other", "--public", "other.pem"}).exitCode, 1);
  EXPECT_EQ(read("other.pem"), "precious");
  EXPECT_THAT(filesInWork(), ElementsAre("image.bin", "maker.key", "other.pem"));
}

TEST_F(Keys, ThatOthersMayReadGetAWarning) {
  writeKeys(0600);
  EXPECT_THAT(run(usbCommand()).error, IsEmpty());

  writeKeys(0640);
  const auto warned = run(usbCommand());
  EXPECT_EQ(warned.exitCode, 0);
  EXPECT_THAT(warned.error, HasSubstr("package.key (mode 0640); run: chmod 600 package.key"));
  EXPECT_THAT(warned.error, HasSubstr("maker.key (mode 0640)"));
}

TEST_F(Keys, OfAnotherLengthAreRefused) {
  writeKeys();
  for (const std::size_t length : {0U, 1U, 16U, 31U, 33U, 64U, 100000U}) {
    write("package.key", std::string(length, 'K'), 0600);
    EXPECT_EQ(run(usbCommand()).exitCode, 1) << length;
  }
  EXPECT_THAT(run(usbCommand()).error, HasSubstr("too long"));
  EXPECT_FALSE(exists(std::string(kWork) + "tunerfw.bin"));
}

TEST_F(Keys, ThatAreNoFilesAreRefusedWithoutWaiting) {
  writeKeys();
  fs::remove(std::string(kWork) + "package.key");
  ASSERT_EQ(mkfifo((std::string(kWork) + "package.key").c_str(), 0600), 0);
  EXPECT_THAT(run(usbCommand()).error, HasSubstr("no regular file"));

  fs::remove(std::string(kWork) + "package.key");
  fs::create_directory(std::string(kWork) + "package.key");
  EXPECT_EQ(run(usbCommand()).exitCode, 1);
}

TEST_F(Keys, ThatCannotSignAreRefused) {
  writeKeys();
  write("maker.key", "no key", 0600);
  EXPECT_THAT(run(usbCommand()).error, HasSubstr("no private key"));

  fs::copy_file(std::string(kWork) + "maker.pem", std::string(kWork) + "maker.key",
                fs::copy_options::overwrite_existing);
  EXPECT_THAT(run(usbCommand()).error, HasSubstr("no private key"));

  for (const std::string kind : {"-algorithm x25519", "-algorithm rsa -pkeyopt rsa_keygen_bits:2048"}) {
    const std::string make = "openssl genpkey " + kind + " -out maker.key 2>/dev/null";
    ASSERT_EQ(runProgram({{"sh", "-c", make}, kWork, 0, {}}).exitCode, 0);
    EXPECT_THAT(run(usbCommand()).error, HasSubstr("Ed25519, or RSA of 3072 or 4096 bits")) << kind;
  }
}

TEST_F(Keys, UnderAPassPhraseAreRefusedWithoutAsking) {
  writeKeys();
  const std::string lock = "openssl pkcs8 -topk8 -passout pass:secret -in maker.key -out locked.key";
  ASSERT_EQ(runProgram({{"sh", "-c", lock}, kWork, 0, {}}).exitCode, 0);
  fs::rename(std::string(kWork) + "locked.key", std::string(kWork) + "maker.key");

  EXPECT_THAT(run(usbCommand()).error, HasSubstr("without a pass phrase"));
}

TEST_F(Keys, CannotBeGivenOnTheCommandLine) {
  writeKeys();
  std::vector<std::string> command = usbCommand();
  command.insert(command.end(), {"--key", std::string(64, 'a')});

  const ProgramResult result = run(command);

  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.error, HasSubstr("not expected"));
}

}  // namespace
