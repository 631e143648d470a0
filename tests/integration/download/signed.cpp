// SPDX-License-Identifier: Apache-2.0
// Packages that are signed, not signed, or signed for something else. Real packages,
// keys, servers and programs.
#include <sys/stat.h>

#include <filesystem>

#include "download-test.h"
#include "package-image.h"
#include "signed-package.h"
#include "temporary-mount.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kKeys = "/usr/share/fw-update/keys/";
const std::string kMinimum = "/var/lib/fw-update/minimum-versions/wifiempfw";
const std::string kServed = "/tmp/served";
const std::string kSet = "NAME=Test\nIMAGE_ID=tv\nIMAGE_VERSION=7\nBUILD_ID=1\n";  // its model is tv-7

class SignedDownload : public DownloadTest {
 protected:
  void SetUp() override {
    DownloadTest::SetUp();
    writeFile(kKeys + "maker.pem", publicPem(testSigningKey("ed25519")));
    configureStrictly("file://" + kServed);
  }

  static fwpackage::Statements statements(const std::string& name = kWifi) {
    return {fwpackage::Kind::ExtensionPackage, name, "", "2.0.0", ""};
  }
  static std::string signedImage(const std::string& content,
                                 const fwpackage::Statements& stated = statements(),
                                 const std::string& algorithm = "ed25519") {
    return signedFile(content, testSigningKey(algorithm), stated);
  }
  static void serve(const std::string& image) { serveFile(kWifi + ".img", image); }

  // Refused for this reason, and gone.
  static void expectRefusal(const std::string& reason, const std::string& sentence) {
    writeFile(kImage, "old");

    expectFailure(download(), reason, sentence);

    EXPECT_EQ(readFile(kImage), "old");
    EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
  }
  static ProgramResult loggedDownload() {
    return runProgram({{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {"FW_UPDATE_LOG=stderr"}});
  }

  const std::string content = makeImage(300000);
};

TEST_F(SignedDownload, IsTakenAsItIsWithItsSignature) {
  for (const char* algorithm : {"ed25519", "rsa-3072"}) {
    writeFile(kKeys + "other.pem", publicPem(testSigningKey(algorithm)));
    const std::string image = signedImage(content, statements(), algorithm);
    serve(image);

    const auto result = loggedDownload();

    EXPECT_EQ(result.exitCode, 0) << result.error;
    EXPECT_TRUE(readFile(kImage) == image);
    EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
    EXPECT_THAT(result.error, Not(HasSubstr("allow_")));
  }
}

TEST_F(SignedDownload, IsNeededUnlessTheConfigurationSaysOtherwise) {
  serve(content);

  expectRefusal("unsigned", "The package is refused: the file does not end with a signature trailer.");

  EXPECT_EQ(fwplatform::readDownloadStatus(kWifi)->remedy,
            "Have the package signed, or set allow_unsigned = true in /etc/fw-update/download.conf.");
}

TEST_F(SignedDownload, OfAFewBytesIsNotSigned) {
  serve("few");

  expectRefusal("unsigned", "too short to be a signed package");
}

TEST_F(SignedDownload, IsNotNeededWhenTheConfigurationSaysSoAndTheLogTellsEachTime) {
  serve(content);
  configureStrictly("file://" + kServed, "allow_unsigned = true");
  for (int i = 0; i < 2; ++i) {
    const auto result = loggedDownload();

    EXPECT_EQ(result.exitCode, 0) << result.error;
    EXPECT_THAT(result.error, HasSubstr("download of wifiempfw: The package is not signed; "
                                        "allow_unsigned = true allows it."));
  }
  EXPECT_TRUE(readFile(kImage) == content);
}

// What is signed wrongly is not unsigned.
TEST_F(SignedDownload, ThatIsAlteredIsRefusedWhereUnsignedOnesAreTakenToo) {
  std::string image = signedImage(content);
  image[1000] = static_cast<char>(image[1000] ^ 1);
  serve(image);
  configureStrictly("file://" + kServed, "allow_unsigned = true");

  expectRefusal("not-trusted", "The package is refused: the signature does not match the content.");
}

TEST_F(SignedDownload, IsForItsOwnIdentifierAlone) {
  serve(signedImage(content, statements("tunerempfw")));

  expectRefusal("not-trusted", "the package is for another component");
}

TEST_F(SignedDownload, IsNoUsbPackage) {
  auto stated = statements();
  stated.kind = fwpackage::Kind::UsbPackage;
  serve(signedImage(content, stated));

  expectRefusal("not-trusted", "the signature is for another kind of package");
}

TEST_F(SignedDownload, IsNotOfTheOldFormatEvenWhereThatIsAllowed) {
  const auto& key = testSigningKey("ed25519");
  const auto id = key.keyId();
  writeFile(kKeys + "format-1", fwpackage::toHex(id.data(), id.size()) + "\n");
  serve(oldSignedFile(content, key));

  expectRefusal("not-trusted", "the signature is for another kind of package");
}

TEST_F(SignedDownload, IsForTheModelThatItStates) {
  writeFile("/tmp/os-release", kSet);
  const auto set = TemporaryMount::bind("/tmp/os-release", "/etc/os-release");
  auto stated = statements();
  stated.model = "tv-7";
  serve(signedImage(content, stated));
  EXPECT_EQ(download().exitCode, 0);

  stated.model = "tv-8";
  serve(signedImage(content, stated));
  expectRefusal("not-trusted", "the package is for another model");
}

TEST_F(SignedDownload, NeedsAKeyThatIsKnown) {
  fs::remove(kKeys + "maker.pem");
  serve(signedImage(content));

  expectRefusal("not-trusted", "no public key with the package's key identifier is known");
}

TEST_F(SignedDownload, OfARevokedKeyIsRefused) {
  const auto id = testSigningKey("ed25519").keyId();
  writeFile(kKeys + "revoked", fwpackage::toHex(id.data(), id.size()) + "\n");
  serve(signedImage(content));

  expectRefusal("not-trusted", "the package's key is revoked");
}

TEST_F(SignedDownload, IsRefusedWhenAListCannotBeUsed) {
  writeFile(kKeys + "revoked", "what is this?\n");
  serve(signedImage(content));

  expectRefusal("unusable-lists", "a list of keys beside the public keys cannot be used");
}

TEST_F(SignedDownload, RaisesTheMinimumVersionThatItStates) {
  auto stated = statements();
  stated.minimumVersion = "1.10";
  serve(signedImage(content, stated));

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_EQ(readFile(kMinimum), "1.10\n");
  stated.version = "1.9";
  stated.minimumVersion = "";
  serve(signedImage(content, stated));
  expectRefusal("too-old", "The package is refused: ");
  stated.version = "1.10";
  serve(signedImage(content, stated));
  EXPECT_EQ(download().exitCode, 0);
}

TEST_F(SignedDownload, RaisesNothingWhenItIsRefused) {
  auto stated = statements("tunerempfw");
  stated.minimumVersion = "1.10";
  serve(signedImage(content, stated));

  expectRefusal("not-trusted", "another component");

  EXPECT_FALSE(exists(kMinimum));
  EXPECT_FALSE(exists(fs::path(kMinimum).parent_path() / "tunerempfw"));
}

TEST_F(SignedDownload, IsRefusedWhenTheMinimumVersionIsDamaged) {
  writeFile(kMinimum, "");
  serve(signedImage(content));

  expectRefusal("unusable-lists", "The package is refused: ");
}

// Where it lies, older ones are refused: so what cannot be noted does not come to lie there.
TEST_F(SignedDownload, IsNotPutInPlaceWhenItsMinimumVersionCannotBeNoted) {
  auto stated = statements();
  stated.minimumVersion = "1.10";
  serve(signedImage(content, stated));
  fs::create_directories(fs::path(kMinimum).parent_path());
  fs::create_directory(kMinimum + ".new");

  expectRefusal("file-system",
                "The package's minimum version 1.10 cannot be noted in "
                "/var/lib/fw-update/minimum-versions: File exists.");
}

TEST_F(SignedDownload, IsRefusedWithoutAPartToGoOnWith) {
  const std::string image = signedImage(content, statements("tunerempfw"));
  const WebServer server({serveFile(kWifi + ".img", image), 0, ""});
  configureStrictly(server.url(), "allow_insecure = true");

  expectFailure(download(), "not-trusted", "another component");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(SignedDownload, OverHttpNeedsPermission) {
  OddServer server({{httpAnswer("200 OK", {"Content-Length: 5"}, "bytes")}});
  configureStrictly(server.url());

  expectFailure(download(), "insecure",
                "The connection to " + server.url() + "wifiempfw.img is not protected.");

  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(fwplatform::readDownloadStatus(kWifi)->remedy, HasSubstr("allow_insecure = true"));
}

TEST_F(SignedDownload, OverHttpIsToldInTheLogEachTime) {
  const std::string image = signedImage(content);
  const OddAnswer answer{httpAnswer("200 OK", {"Content-Length: " + std::to_string(image.size())}, image)};
  OddServer server({answer, answer});
  configureStrictly(server.url(), "allow_insecure = true");
  for (int i = 0; i < 2; ++i) {
    const auto result = loggedDownload();

    EXPECT_EQ(result.exitCode, 0) << result.error;
    EXPECT_THAT(result.error, HasSubstr("The connection is not protected; allow_insecure = true allows it."));
  }
}

// A package of fw-pack's, from the maker's folder to the component's flash: really
// mounted, or in a user namespace unpacked.
class SignedPackage : public SignedDownload {
 protected:
  void SetUp() override {
    SignedDownload::SetUp();
    fs::copy_file(FW_MODULES_DIRECTORY "/libwifi.so", "/prd/usr/fwupdate/controls/libwifi.so");
    writeFile("/tmp/maker/wififw.bin", makeImage(400000));
    ASSERT_EQ(pack({"keygen", "ed25519", "/tmp/maker/maker.key"}).exitCode, 0);
    fs::copy_file("/tmp/maker/maker.key.pem", kKeys + "packages.pem");
    fs::create_directories(kServed);
  }
  static ProgramResult pack(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FW_PACK_PROGRAM);
    return runProgram({arguments, "/", 0, {}});
  }
  static void packPackage(const std::vector<std::string>& options) {
    std::vector<std::string> command = {
        "emp",   "/tmp/maker/wififw.bin", "--id", "wifiempfw", "--version",
        "1.5.0", "--expected-time",       "30",   "-o",        kServed + "/wifiempfw.img"};
    command.insert(command.end(), options.begin(), options.end());
    const auto made = pack(command);
    ASSERT_EQ(made.exitCode, 0) << made.error;
  }
  static ProgramResult tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FW_UPDATE_TOOL);
    return runProgram({arguments, "/", 0, {"FW_UPDATE_LOG=none"}});
  }
};

TEST_F(SignedPackage, IsDownloadedMountedAndWritten) {
  packPackage({"--signing-key", "/tmp/maker/maker.key"});

  const auto downloaded = tool({"download", "libwifi", "--wait"});
  const auto updated = tool({"update", "libwifi", "--caller", "debug"});

  EXPECT_EQ(downloaded.exitCode, 0) << downloaded.error;
  EXPECT_EQ(updated.exitCode, 0) << updated.error;
  EXPECT_THAT(updated.output, HasSubstr("libwifi was updated. Version 0.0.0 -> 1.5.0"));
}

TEST_F(SignedPackage, IsRefusedWithASentenceAndARemedyWhenItIsNotSigned) {
  packPackage({"--unsigned"});

  const auto result = tool({"download", "libwifi", "--wait"});

  EXPECT_EQ(result.exitCode, 11);
  EXPECT_EQ(result.error,
            "fw-update: wifiempfw was not downloaded: The package is refused: the file does not end with a "
            "signature trailer.\nHave the package signed, or set allow_unsigned = true in "
            "/etc/fw-update/download.conf.\n");
}

}  // namespace
