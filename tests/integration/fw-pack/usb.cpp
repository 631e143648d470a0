// SPDX-License-Identifier: Apache-2.0
// usb, verify and inspect.
#include <sys/stat.h>

#include <filesystem>
#include <ostream>

#include "fw-pack-test.h"
#include "image-information.h"
#include "thoroughness.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using thoroughness::kEveryNth;

constexpr std::size_t kTrailer = 534;

struct Rsa {
  const char* bits;
  const char* format;
  std::size_t signatureSize;
};

void PrintTo(const Rsa& rsa, std::ostream* out) {
  *out << rsa.bits << " bits, format " << rsa.format;
}

class MadeUsbPackage : public PackTest {
 protected:
  void SetUp() override {
    PackTest::SetUp();
    writeKeys();
  }
  static std::string makePackage() {
    const auto result = run(usbCommand());
    EXPECT_EQ(result.exitCode, 0) << result.error;
    return read("tunerfw.bin");
  }
  static ProgramResult verify(const std::string& name = "tunerfw.bin") {
    return run({"verify", name, "--public-key", "maker.pem"});
  }
  static Json::Value inspect(const std::string& key = "package.key", int exitCode = 0) {
    return document({"inspect", "tunerfw.bin", "--public-key", "maker.pem", "--key-file", key}, exitCode);
  }
};

TEST_F(MadeUsbPackage, HasTheSizeThatTheFormatStates) {
  EXPECT_EQ(makePackage().size(), 16 + (64 + image().size()) / 16 * 16 + 16 + kTrailer);
  EXPECT_THAT(filesInWork(),
              ElementsAre("image.bin", "maker.key", "maker.pem", "package.key", "tunerfw.bin"));
}

TEST_F(MadeUsbPackage, IsWhatOpensslMakesOfTheSameIvAndKey) {
  const std::string package = makePackage();
  write("content", std::string("2.0.0") + std::string(59, '\0') + image());
  const std::string encrypt =
      "openssl enc -aes-256-cbc -K $(od -An -tx1 -v package.key | tr -d ' \\n') "
      "-iv $(head -c 16 tunerfw.bin | od -An -tx1 -v | tr -d ' \\n') -in content -out ciphertext";

  ASSERT_EQ(runProgram({{"sh", "-c", encrypt}, kWork, 0, {}}).exitCode, 0);

  EXPECT_EQ(read("ciphertext"), package.substr(16, package.size() - 16 - kTrailer));
}

// An RSA signature can be checked by openssl's simplest command.
class MadeUsbPackageWithRsa : public MadeUsbPackage, public testing::WithParamInterface<Rsa> {};

TEST_P(MadeUsbPackageWithRsa, CarriesASignatureThatOpensslAccepts) {
  // Three small primes are found in a fraction of the time that two large ones take.
  ASSERT_EQ(
      runProgram({{"openssl", "genrsa", "-primes", "3", "-out", "maker.key", GetParam().bits}, kWork, 0, {}})
          .exitCode,
      0);
  ASSERT_EQ(runProgram({{"openssl", "rsa", "-in", "maker.key", "-pubout", "-out", "maker.pem"}, kWork, 0, {}})
                .exitCode,
            0);
  auto command = usbCommand();
  command.insert(command.end(), {"--format", GetParam().format});
  ASSERT_EQ(run(command).exitCode, 0);
  const std::string package = read("tunerfw.bin");
  write("signed", package.substr(0, package.size() - GetParam().signatureSize));
  write("signature", package.substr(package.size() - GetParam().signatureSize));

  const auto openssl =
      runProgram({{"openssl", "dgst", "-sha256", "-verify", "maker.pem", "-signature", "signature", "signed"},
                  kWork,
                  0,
                  {}});

  EXPECT_EQ(openssl.output, "Verified OK\n");
  EXPECT_EQ(verify().exitCode, 0);
}

INSTANTIATE_TEST_SUITE_P(, MadeUsbPackageWithRsa,
                         testing::Values(Rsa{"4096", "1", 512}, Rsa{"3072", "2", 384}),
                         [](const auto& tested) { return "Of" + std::string(tested.param.bits) + "Bits"; });

TEST_F(MadeUsbPackage, HasANewIvEachTime) {
  EXPECT_NE(makePackage().substr(0, 16), makePackage().substr(0, 16));
}

TEST_F(MadeUsbPackage, IsReadBackWithItsKey) {
  makePackage();

  const Json::Value package = inspect();

  EXPECT_EQ(package["kind"].asString(), "usb-package");
  EXPECT_TRUE(package["signature"]["valid"].asBool());
  EXPECT_EQ(package["signature"]["algorithm"].asString(), "ed25519");
  EXPECT_TRUE(package["keyFits"].asBool());
  EXPECT_EQ(package["version"].asString(), "2.0.0");
  EXPECT_EQ(package["imageSize"].asUInt(), image().size());
  EXPECT_EQ(package["imageCrc"].asUInt(), image::crcOf(image()));
}

TEST_F(MadeUsbPackage, TellsNothingOfItsContentWithoutAKeyOrWithAWrongOne) {
  makePackage();
  write("wrong.key", std::string(32, 'W'), 0600);

  const Json::Value wrong = inspect("wrong.key");
  const Json::Value without = document({"inspect", "tunerfw.bin", "--public-key", "maker.pem"});

  EXPECT_FALSE(wrong["keyFits"].asBool());
  EXPECT_FALSE(wrong.isMember("version"));
  EXPECT_FALSE(without.isMember("version"));
  EXPECT_TRUE(without["signature"]["valid"].asBool());
}

TEST_F(MadeUsbPackage, IsVerifiedAgainstThePlatformsKeysByDefault) {
  makePackage();
  EXPECT_EQ(run({"verify", "tunerfw.bin"}).exitCode, 3);

  writeFile("/usr/share/fw-update/keys/maker.pem", read("maker.pem"));
  EXPECT_EQ(run({"verify", "tunerfw.bin"}).exitCode, 0);
}

TEST_F(MadeUsbPackage, IsVerifiedAgainstTheOneKeyThatIsNamed) {
  makePackage();
  write("other.pem", publicPem(fwpack::SigningKey(testSigningKey("ed25519").algorithm())));

  EXPECT_EQ(document({"verify", "tunerfw.bin", "--public-key", "other.pem"}, 3)["verdict"].asString(),
            "unknown-key");
  write("other.pem", "no key");
  EXPECT_THAT(run({"verify", "tunerfw.bin", "--public-key", "other.pem"}).error,
              HasSubstr("other.pem holds no public key in PEM"));
}

TEST_F(MadeUsbPackage, StatesWhatItIsFor) {
  auto command = usbCommand();
  command.insert(command.end(), {"--model", "set-7", "--minimum-version", "1.5.0"});
  const auto made = run(command);
  ASSERT_EQ(made.exitCode, 0) << made.error;

  const Json::Value verified = document({"verify", "tunerfw.bin", "--public-key", "maker.pem"});
  EXPECT_EQ(verified["format"].asInt(), 2);
  EXPECT_EQ(verified["for"].asString(), "usb-package");
  EXPECT_EQ(verified["name"].asString(), "tunerfw");
  EXPECT_EQ(verified["model"].asString(), "set-7");
  EXPECT_EQ(verified["version"].asString(), "2.0.0");
  EXPECT_EQ(verified["minimumVersion"].asString(), "1.5.0");
  EXPECT_THAT(verify().output,
              HasSubstr("is valid for tunerfw 2.0.0 on set-7, from then on none below 1.5.0 (ed25519, key "));
}

TEST_F(MadeUsbPackage, IsForTheNameOfItsFileOrTheOneThatIsGiven) {
  auto command = usbCommand("any.bin");
  command.insert(command.end(), {"--name", "tunerfw"});
  ASSERT_EQ(run(command).exitCode, 0);

  EXPECT_EQ(verify("any.bin").exitCode, 3);
  EXPECT_THAT(verify("any.bin").error, HasSubstr("the package is for another component: tunerfw 2.0.0 ("));
  EXPECT_EQ(run({"verify", "any.bin", "--name", "tunerfw", "--public-key", "maker.pem"}).exitCode, 0);
  fs::rename(std::string(kWork) + "any.bin", std::string(kWork) + "tunerfw.bin");
  EXPECT_EQ(verify().exitCode, 0);

  // A name that no module can have.
  EXPECT_EQ(run(usbCommand("tuner-fw.bin")).exitCode, 2);
  EXPECT_THAT(run(usbCommand("tuner-fw.bin")).error, HasSubstr("not tuner-fw; give it with --name"));
  EXPECT_FALSE(exists(std::string(kWork) + "tuner-fw.bin"));
}

TEST_F(MadeUsbPackage, IsNotOlderThanItsOwnMinimum) {
  auto command = usbCommand();
  command.insert(command.end(), {"--minimum-version", "2.0.1"});
  EXPECT_EQ(run(command).exitCode, 2);
  EXPECT_FALSE(exists(std::string(kWork) + "tunerfw.bin"));

  command.back() = "2.0.0";
  EXPECT_EQ(run(command).exitCode, 0);
}

TEST_F(MadeUsbPackage, IsCheckedForAModelOnRequest) {
  auto command = usbCommand();
  command.insert(command.end(), {"--model", "set-7"});
  ASSERT_EQ(run(command).exitCode, 0);

  for (const auto& [model, exitCode] : {std::pair<const char*, int>{"set-7", 0}, {"set-8", 3}}) {
    EXPECT_EQ(run({"verify", "tunerfw.bin", "--model", model, "--public-key", "maker.pem"}).exitCode,
              exitCode)
        << model;
  }
}

TEST_F(MadeUsbPackage, OfTheOldFormatStatesNothing) {
  auto command = usbCommand();
  command.insert(command.end(), {"--format", "1"});
  ASSERT_EQ(run(command).exitCode, 0);

  const Json::Value verified = document({"verify", "tunerfw.bin", "--public-key", "maker.pem"});
  EXPECT_EQ(verified["format"].asInt(), 1);
  EXPECT_FALSE(verified.isMember("name"));
  EXPECT_THAT(verify().output, HasSubstr(", format 1)"));
  // A directory's keys may not sign it unless its list says so.
  write("keys/maker.pem", read("maker.pem"));
  EXPECT_EQ(document({"verify", "tunerfw.bin", "--keys", "keys"}, 3)["verdict"].asString(), "old-format");
  write("keys/format-1", verified["keyId"].asString());
  EXPECT_EQ(run({"verify", "tunerfw.bin", "--keys", "keys"}).exitCode, 0);

  for (const char* option : {"--name", "--model", "--minimum-version"}) {
    auto contradicting = command;
    contradicting.insert(contradicting.end(), {option, "1"});
    EXPECT_EQ(run(contradicting).exitCode, 2) << option;
  }
}

TEST_F(MadeUsbPackage, IsSignedByKeysThatItsFormatHas) {
  const std::string make = "openssl genrsa -primes 3 -out maker.key ";
  ASSERT_EQ(runProgram({{"sh", "-c", make + "4096 2>/dev/null"}, kWork, 0, {}}).exitCode, 0);
  EXPECT_THAT(run(usbCommand()).error,
              HasSubstr("format 2 cannot be signed with an rsa-4096 key; use a key of ed25519 or rsa-3072"));

  ASSERT_EQ(runProgram({{"sh", "-c", make + "3072 2>/dev/null"}, kWork, 0, {}}).exitCode, 0);
  auto command = usbCommand();
  command.insert(command.end(), {"--format", "1"});
  EXPECT_THAT(run(command).error,
              HasSubstr("format 1 cannot be signed with an rsa-3072 key; use a key of rsa-4096 or ed25519"));
  auto tooLong = usbCommand();
  tooLong.insert(tooLong.end(), {"--model", std::string(120, 'm')});
  EXPECT_THAT(run(tooLong).error, HasSubstr("together they may have 124 characters"));
  EXPECT_FALSE(exists(std::string(kWork) + "tunerfw.bin"));
}

TEST_F(MadeUsbPackage, IsRefusedWhenAltered) {
  const std::string package = makePackage();
  for (const std::size_t at : {std::size_t{0}, std::size_t{5000}, package.size() - kTrailer,
                               package.size() - 512, package.size() - 1}) {
    std::string altered = package;
    altered[at] = static_cast<char>(altered[at] ^ 1);
    write("tunerfw.bin", altered);
    EXPECT_EQ(verify().exitCode, 3) << at;
    EXPECT_FALSE(document({"verify", "tunerfw.bin", "--public-key", "maker.pem"}, 3)["valid"].asBool());
  }
}

// Short, cut and foreign files, with and without a key: an answer, never a crash.
TEST_F(MadeUsbPackage, IsInspectedAtEveryLengthUpTo700) {
  const std::string package =
      usbPackage(read("package.key"), "2.0.0", std::string(40, 'i'), testSigningKey("ed25519"));
  for (std::size_t length = 0; length <= 700; length += length < 560 ? 37 : kEveryNth) {
    write("tunerfw.bin", (package + std::string(700, '\0')).substr(0, length));
    // From 614 bytes on, and in whole cipher blocks, it has the size of one.
    const bool sizeFits = length >= 614 && length % 16 == package.size() % 16;
    const Json::Value found = inspect("package.key", sizeFits ? 0 : 4);
    EXPECT_EQ(found["signature"]["valid"].asBool(), length == package.size()) << length;
    // A cut package may look whole to the key: one padding in 256 is right by chance.
    if (length == package.size() || length % 16 != package.size() % 16) {
      EXPECT_EQ(found.isMember("version"), length == package.size()) << length;
    }
  }
}

TEST_F(MadeUsbPackage, OfMoreThanTwoGibibytesIsRefusedAtOnce) {
  fs::resize_file(std::string(kWork) + "image.bin", std::uintmax_t{1} << 31U);

  const auto made = run(usbCommand());
  EXPECT_EQ(made.exitCode, 1);
  EXPECT_THAT(made.error, HasSubstr("too large"));

  fs::rename(std::string(kWork) + "image.bin", std::string(kWork) + "tunerfw.bin");
  EXPECT_EQ(verify().exitCode, 3);
  EXPECT_FALSE(inspect("package.key", 4)["sizeFits"].asBool());
  EXPECT_EQ(inspect("package.key", 4)["outcome"].asString(), "damaged");
}

TEST_F(MadeUsbPackage, IsNotMadeOfWhatNoModuleTakes) {
  auto longVersion = usbCommand();
  longVersion[3] = std::string(64, '1');
  EXPECT_EQ(run(longVersion).exitCode, 2);
  longVersion[3] = std::string(63, '1');
  EXPECT_EQ(run(longVersion).exitCode, 0);
  EXPECT_EQ(inspect()["version"].asString(), std::string(63, '1'));

  write("image.bin", "");
  EXPECT_EQ(run(usbCommand("x.bin")).exitCode, 1);
  EXPECT_FALSE(exists(std::string(kWork) + "x.bin"));
}

TEST_F(MadeUsbPackage, InPlaceOfADirectoryOrFifoIsAClearError) {
  fs::create_directory(std::string(kWork) + "directory.bin");
  ASSERT_EQ(mkfifo((std::string(kWork) + "fifo.bin").c_str(), 0644), 0);

  for (const std::string name : {"directory.bin", "fifo.bin"}) {
    EXPECT_EQ(verify(name).exitCode, 1) << name;
    EXPECT_THAT(verify(name).error, HasSubstr("no regular file")) << name;
    EXPECT_EQ(run(usbCommand(name)).exitCode, 1) << name;
  }
  EXPECT_EQ(run({"inspect", "fifo.bin"}).exitCode, 1);
}

TEST_F(MadeUsbPackage, LeavesTheOldFileWhenItCannotBeWritten) {
  write("tunerfw.bin", "old");
  write("image.bin", std::string(2 << 20, 'x'));
  const std::string limited = "ulimit -f 512; trap '' XFSZ; exec " FW_PACK_PROGRAM
                              " usb image.bin --version 1 --key-file package.key --signing-key maker.key "
                              "-o tunerfw.bin";

  const auto failed = runProgram({{"bash", "-c", limited}, kWork, 0, {}});

  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_THAT(failed.error, HasSubstr("tunerfw.bin cannot be written"));
  EXPECT_EQ(read("tunerfw.bin"), "old");
  EXPECT_EQ(filesInWork().size(), 5U);
}

}  // namespace
