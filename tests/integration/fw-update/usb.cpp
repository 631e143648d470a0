// SPDX-License-Identifier: Apache-2.0
// usb estimate and usb apply: real packages, the real verifier, real modules.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "signed-package.h"
#include "tool-test.h"

namespace fs = std::filesystem;

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kDrive = "/opt/media/USBDriveA/";
constexpr const char* kKeyFile = "/usr/share/fw-update/package.key";
constexpr const char* kJournal = "/var/lib/fw-components/journal.log";
constexpr const char* kFlash = "/var/lib/fw-components/";
constexpr std::size_t kFlashHeader = 256;

class UsbTool : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    fs::copy_file(VERIFIER_LIBRARY, "/usr/lib/libkZAQUser.so");
    writeFile("/usr/share/fw-update/keys/maker.pem", publicPem(testSigningKey("ed25519")));
    writeKey(key());
  }
  static std::string key() { return std::string(32, 'K'); }
  static void writeKey(const std::string& content, int mode = 0600) {
    writeFile(kKeyFile, content);
    fs::permissions(kKeyFile, fs::perms(mode));
  }
  static std::string image(const std::string& firmware) { return std::string(200001, firmware[0]); }
  static std::string package(const std::string& firmware, const std::string& version = "2.0.0") {
    return usbPackage(key(), version, image(firmware), testSigningKey("ed25519"), firmware);
  }
  static void putPackage(const std::string& firmware, const std::string& version = "2.0.0",
                         const std::string& directory = kDrive) {
    writeFile(directory + firmware + ".bin", package(firmware, version));
  }
  static std::vector<std::string> command(const std::string& name) {
    return {"usb", name, "--key-file", kKeyFile};
  }
  static Json::Value estimate() { return document(command("estimate")); }
  static Json::Value apply() { return document(command("apply")); }
  static Json::Value moduleOf(const Json::Value& document, const std::string& library) {
    for (const Json::Value& module : document["modules"]) {
      if (module["library"] == library) {
        return module;
      }
    }
    return Json::Value();
  }
  // Whether this very image is active.
  static bool isActive(const std::string& firmware) {
    const std::string flash = kFlash + firmware + ".flash";
    return exists(flash) && readFile(flash).substr(kFlashHeader) == image(firmware);
  }
};

TEST_F(UsbTool, SaysThatAModuleThrewWhenItWasAskedForItsTime) {
  installOddModule("with-packages");
  putPackage("oddfw");

  for (const char* one : {"estimate", "apply"}) {
    const Json::Value ended = document(command(one), {{"ODD_MODULE=throwing-time"}});

    EXPECT_EQ(ended["exitCode"].asInt(), 6) << one;
    EXPECT_EQ(ended["message"].asString(), "A module broke off with an error of its own: no answer.") << one;
  }
}

TEST_F(UsbTool, EstimatesEachModuleAndTheTotal) {
  for (const char* module : {"libtuner", "libpanel", "libwifi", "libEXT-remote"}) {
    installModule(module);
  }
  describeComponent("tunerfw", "expected_time = 30");
  describeComponent("panelfw", "expected_time = 45");
  putPackage("tunerfw");
  putPackage("panelfw");

  const Json::Value found = estimate();

  EXPECT_EQ(found["exitCode"].asInt(), 0);
  EXPECT_EQ(found["totalSeconds"].asInt(), 75);
  EXPECT_EQ(found["directory"].asString(), kDrive);
  EXPECT_TRUE(found["signaturesChecked"].asBool());
  EXPECT_TRUE(moduleOf(found, "libtuner")["needsUpdate"].asBool());
  EXPECT_EQ(moduleOf(found, "libtuner")["expectedSeconds"].asInt(), 30);
  EXPECT_EQ(moduleOf(found, "libpanel")["expectedSeconds"].asInt(), 45);
  EXPECT_EQ(moduleOf(found, "libwifi")["reason"].asString(), "There is no package for libwifi.");
  EXPECT_EQ(moduleOf(found, "libEXT-remote")["outcome"].asString(), "nothing-to-do");
  EXPECT_FALSE(exists(std::string(kFlash) + "tunerfw.flash"));
}

TEST_F(UsbTool, ShowsTheEstimateAsATableForPeople) {
  installModule("libtuner");
  describeComponent("tunerfw", "expected_time = 30");
  putPackage("tunerfw");

  const Ended shown = run(command("estimate"));

  EXPECT_EQ(shown.out,
            "LIBRARY   FIRMWARE  VERSION  UPDATE  TIME  REASON\n"
            "libtuner  tunerfw   0.0.0    yes     30 s  The package is newer.\n"
            "total                        1       30 s\n");
  EXPECT_EQ(shown.err, "");
}

TEST_F(UsbTool, AppliesThePackagesThatAreNeeded) {
  for (const char* module : {"libtuner", "libpanel", "libwifi"}) {
    installModule(module);
  }
  putPackage("tunerfw");
  putPackage("wififw", "1.2.3");

  const Json::Value applied = apply();

  EXPECT_EQ(applied["exitCode"].asInt(), 0);
  EXPECT_EQ(applied["result"].asInt(), 0);
  EXPECT_THAT(applied["message"].asString(), MatchesRegex("2 packages were applied in [0-9]+\\.[0-9] s\\."));
  EXPECT_EQ(moduleOf(applied, "libtuner")["versionAfter"].asString(), "2.0.0");
  EXPECT_EQ(moduleOf(applied, "libwifi")["versionAfter"].asString(), "1.2.3");
  EXPECT_EQ(moduleOf(applied, "libtuner")["outcome"].asString(), "updated");
  EXPECT_EQ(moduleOf(applied, "libpanel")["outcome"].asString(), "nothing-to-do");
  EXPECT_TRUE(isActive("tunerfw"));
  EXPECT_TRUE(isActive("wififw"));
  EXPECT_FALSE(isActive("panelfw"));
}

TEST_F(UsbTool, HasNothingToDoAfterwards) {
  installModule("libtuner");
  putPackage("tunerfw");
  EXPECT_THAT(apply()["message"].asString(), StartsWith("1 package was applied in "));

  EXPECT_EQ(estimate()["exitCode"].asInt(), 3);
  EXPECT_THAT(moduleOf(estimate(), "libtuner")["reason"].asString(), HasSubstr("version 2.0.0 is active"));
  EXPECT_EQ(apply()["exitCode"].asInt(), 3);
}

TEST_F(UsbTool, TellsTheProgressOfEachPackage) {
  installModule("libtuner");
  installModule("libpanel");
  describeComponent("tunerfw", "write_kib_per_second = 400");
  putPackage("tunerfw");
  putPackage("panelfw");
  auto ndjson = command("apply");
  ndjson.insert(ndjson.end(), {"--progress", "ndjson"});

  const auto events = lines(run(ndjson).out);

  std::vector<std::string> started;
  bool halfway = false;
  for (const Json::Value& event : events) {
    if (event["event"] == "start") {
      started.push_back(event["module"].asString());
    }
    halfway = halfway || (event["event"] == "progress" && event["percent"].asInt() > 0 &&
                          event["percent"].asInt() < 100);
    EXPECT_FALSE(event.isMember("givesUpAtSeconds"));  // no time limit holds here
  }
  EXPECT_THAT(started, testing::Contains("libtuner"));
  EXPECT_TRUE(halfway);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back()["event"].asString(), "result");
  EXPECT_EQ(events.back()["exitCode"].asInt(), 0);
}

TEST_F(UsbTool, RefusesAPackageWithOneFlippedByteAndAppliesTheOthers) {
  installModule("libtuner");
  installModule("libpanel");
  putPackage("panelfw");
  std::string altered = package("tunerfw");
  altered[5000] = static_cast<char>(altered[5000] ^ 1);
  writeFile(std::string(kDrive) + "tunerfw.bin", altered);

  EXPECT_EQ(estimate()["exitCode"].asInt(), 0);
  const Json::Value applied = apply();

  EXPECT_EQ(applied["exitCode"].asInt(), 5);
  EXPECT_THAT(moduleOf(applied, "libtuner")["reason"].asString(), HasSubstr("no valid signature"));
  EXPECT_FALSE(exists(std::string(kFlash) + "tunerfw.flash"));
  EXPECT_TRUE(isActive("panelfw"));
}

// ---- why a package is refused ---------------------------------------------------

std::string keyIdOfMaker() {
  const fwpackage::KeyId id = testSigningKey("ed25519").keyId();
  return fwpackage::toHex(id.data(), id.size());
}

TEST_F(UsbTool, SaysThatAPackageIsForAnotherComponent) {
  installModule("libwifi");
  writeFile(std::string(kDrive) + "wififw.bin", package("tunerfw"));

  const Json::Value applied = apply();

  EXPECT_EQ(applied["exitCode"].asInt(), 5);
  EXPECT_EQ(moduleOf(applied, "libwifi")["reason"].asString(),
            "The package /opt/media/USBDriveA/wififw.bin is refused: it is for another component, tunerfw.");
  EXPECT_EQ(moduleOf(applied, "libwifi")["remedy"].asString(), "Give it its own name again, tunerfw.bin.");
  EXPECT_FALSE(exists(std::string(kFlash) + "wififw.flash"));
}

TEST_F(UsbTool, SaysThatAPackageIsForAnotherModel) {
  installModule("libtuner");
  fwpackage::Statements statements = statementsFor("tunerfw");
  statements.model = "another-set";
  writeFile(std::string(kDrive) + "tunerfw.bin",
            signedFile("IV and ciphertext", testSigningKey("ed25519"), statements));

  const Json::Value found = estimate();

  EXPECT_EQ(found["exitCode"].asInt(), 5);
  EXPECT_THAT(found["message"].asString(), HasSubstr("is refused: it is for another model, another-set."));
}

TEST_F(UsbTool, SaysThatAPackageIsOlderThanTheMinimum) {
  installModule("libtuner");
  putPackage("tunerfw", "2.0.0");
  writeFile("/var/lib/fw-update/minimum-versions/tunerfw", "2.0.1\n");

  const Json::Value found = estimate();

  EXPECT_EQ(found["exitCode"].asInt(), 5);
  EXPECT_THAT(found["message"].asString(), HasSubstr("is refused: this set takes no version before 2.0.1."));
  EXPECT_THAT(found["remedy"].asString(), HasSubstr("--allow-rollback"));
}

TEST_F(UsbTool, SaysWhichKeysAndListsRefuseAPackage) {
  installModule("libtuner");
  writeFile(std::string(kDrive) + "tunerfw.bin",
            oldSignedFile("IV and ciphertext", testSigningKey("ed25519")));
  EXPECT_THAT(estimate()["message"].asString(), HasSubstr("is refused: its signature has format 1"));

  putPackage("tunerfw");
  const std::string keys = "/usr/share/fw-update/keys/";
  writeFile(keys + "revoked", keyIdOfMaker());
  EXPECT_THAT(estimate()["message"].asString(), HasSubstr("is refused: its key is revoked."));
  writeFile(keys + "revoked", "everybody");
  EXPECT_THAT(estimate()["message"].asString(), HasSubstr("is refused: a list of keys cannot be read."));
  fs::remove(keys + "revoked");
  fs::remove(keys + "maker.pem");
  EXPECT_THAT(estimate()["message"].asString(),
              HasSubstr("has no valid signature: no public key with the package's key identifier is known."));
}

// Another maker's library has rules of its own.
TEST_F(UsbTool, SaysNoMoreThanTheLibraryWhenItsVerifierIsAnother) {
  installModule("libtuner");
  fs::copy_file(OTHER_VERIFIER, "/usr/lib/libkZAQUser.so", fs::copy_options::overwrite_existing);
  putPackage("tunerfw");

  EXPECT_EQ(estimate()["message"].asString(),
            "The package /opt/media/USBDriveA/tunerfw.bin has no valid signature.");
}

TEST_F(UsbTool, AppliesAnOlderPackageWhenRootAllowsIt) {
  installModule("libtuner");
  putPackage("tunerfw", "2.0.0");
  writeFile("/var/lib/fw-update/minimum-versions/tunerfw", "3\n");
  auto words = command("apply");
  words.emplace_back("--allow-rollback");

  const Json::Value applied = document(words);

  EXPECT_EQ(applied["outcome"].asString(), "updated");
  EXPECT_TRUE(isActive("tunerfw"));
  EXPECT_EQ(readFile("/var/lib/fw-update/minimum-versions/tunerfw"), "3\n");
  EXPECT_EQ(apply()["exitCode"].asInt(), 5);  // no other process is allowed it
}

TEST_F(UsbTool, AllowsRootAloneToApplyAnOlderPackage) {
  const std::string asAnother = "unshare --user --map-user=7 " TESTED_TOOL
                                " usb estimate --allow-rollback --key-file " +
                                std::string(kKeyFile) + " 2>&1";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(asAnother.c_str(), "r"), pclose);
  char text[1000] = {};
  const std::size_t length = fread(text, 1, sizeof text - 1, pipe.get());

  EXPECT_THAT(std::string(text, length), HasSubstr("Only root may apply a package older than"));
}

TEST_F(UsbTool, SaysInTheLogThatOlderPackagesAreAllowed) {
  installModule("libtuner");
  auto words = command("estimate");
  words.insert(words.end(), {"--allow-rollback", "--log"});

  EXPECT_THAT(run(words).err, HasSubstr("root allows packages older than the minimum version"));
}

TEST_F(UsbTool, AllowsNoRollbackWithAnotherVerifier) {
  installModule("libtuner");
  fs::copy_file(OTHER_VERIFIER, "/usr/lib/libkZAQUser.so", fs::copy_options::overwrite_existing);
  auto words = command("estimate");
  words.emplace_back("--allow-rollback");

  EXPECT_EQ(document(words)["exitCode"].asInt(), 2);
  EXPECT_THAT(document(words)["message"].asString(), HasSubstr("knows no --allow-rollback"));
}

TEST_F(UsbTool, RefusesEverythingThatIsNoPackage) {
  installModule("libtuner");
  const std::string path = std::string(kDrive) + "tunerfw.bin";
  const std::string whole = package("tunerfw");
  const std::vector<std::string> contents = {"",
                                             "short",
                                             std::string(613, 'x'),
                                             std::string(700, '\0'),
                                             whole.substr(0, whole.size() - 1),
                                             whole.substr(0, 20000),
                                             whole.substr(1),
                                             whole + "x"};
  for (const std::string& content : contents) {
    writeFile(path, content);
    EXPECT_EQ(estimate()["exitCode"].asInt(), 5) << content.size();
    EXPECT_EQ(apply()["exitCode"].asInt(), 5) << content.size();
  }
  EXPECT_FALSE(exists(std::string(kFlash) + "tunerfw.flash"));
}

TEST_F(UsbTool, RefusesDirectoriesFifosAndLinksThatLeadNowhereWithoutWaiting) {
  installModule("libtuner");
  const std::string path = std::string(kDrive) + "tunerfw.bin";
  fs::create_directories(path);
  EXPECT_EQ(estimate()["exitCode"].asInt(), 5);

  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  EXPECT_EQ(estimate()["exitCode"].asInt(), 5);

  fs::remove(path);
  fs::create_symlink("/nowhere", path);
  EXPECT_EQ(estimate()["exitCode"].asInt(), 3);
}

TEST_F(UsbTool, RefusesAFileOfMoreThanTwoGibibytes) {
  installModule("libtuner");
  putPackage("tunerfw");
  fs::resize_file(std::string(kDrive) + "tunerfw.bin", (std::uintmax_t{1} << 31U) + 1);

  EXPECT_EQ(estimate()["exitCode"].asInt(), 5);
  EXPECT_EQ(apply()["exitCode"].asInt(), 5);
}

TEST_F(UsbTool, SaysThatTheKeyIsNotThePackages) {
  installModule("libtuner");
  putPackage("tunerfw");
  writeKey(std::string(32, 'W'));

  const Json::Value found = estimate();

  EXPECT_EQ(found["exitCode"].asInt(), 5);
  EXPECT_THAT(found["message"].asString(), HasSubstr("the key is not the package's"));
  EXPECT_EQ(apply()["exitCode"].asInt(), 5);
}

TEST_F(UsbTool, TakesKeyFilesOf32BytesAlone) {
  installModule("libtuner");
  putPackage("tunerfw");
  for (const std::size_t length : {0U, 31U, 33U, 64U}) {
    writeKey(std::string(length, 'K'));
    EXPECT_EQ(apply()["exitCode"].asInt(), 2) << length;
  }
  fs::remove(kKeyFile);
  EXPECT_EQ(apply()["exitCode"].asInt(), 2);
  EXPECT_FALSE(isActive("tunerfw"));
}

TEST_F(UsbTool, WarnsOfAKeyFileThatOthersMayRead) {
  installModule("libtuner");
  writeKey(key(), 0644);

  EXPECT_THAT(run(command("estimate")).err, HasSubstr("(mode 0644); run: chmod 600"));
  EXPECT_THAT(estimate()["warnings"][0].asString(), HasSubstr("(mode 0644)"));
}

TEST_F(UsbTool, WarnsThatSignaturesAreNotCheckedWithoutTheVerifier) {
  installModule("libtuner");
  fs::remove("/usr/lib/libkZAQUser.so");
  std::string unsignedPackage = package("tunerfw");
  unsignedPackage.replace(unsignedPackage.size() - 534, 534, 534, '\0');
  writeFile(std::string(kDrive) + "tunerfw.bin", unsignedPackage);

  const Json::Value found = estimate();

  EXPECT_TRUE(moduleOf(found, "libtuner")["needsUpdate"].asBool());
  EXPECT_FALSE(found["signaturesChecked"].asBool());
  EXPECT_THAT(run(command("estimate")).err, HasSubstr("signatures were NOT checked"));
}

TEST_F(UsbTool, GivesEachModuleItsOwnReasonWithoutTheVerifierToo) {
  for (const char* module : {"libtuner", "libpanel", "libwifi"}) {
    installModule(module);
  }
  fs::remove("/usr/lib/libkZAQUser.so");
  writeFile(std::string(kDrive) + "tunerfw.bin", "short");
  writeFile(std::string(kDrive) + "panelfw.bin", std::string(600, 'x'));
  putPackage("wififw");

  const Json::Value found = estimate();

  EXPECT_EQ(moduleOf(found, "libtuner")["reason"].asString(),
            "The package of libtuner is too short or unreadable.");
  EXPECT_THAT(moduleOf(found, "libpanel")["reason"].asString(), HasSubstr("cannot be decrypted"));
  EXPECT_TRUE(moduleOf(found, "libwifi")["needsUpdate"].asBool());
}

TEST_F(UsbTool, FindsTheDriveByItself) {
  installModule("libtuner");
  EXPECT_EQ(estimate()["message"].asString(), "No USB drive is mounted.");
  EXPECT_EQ(estimate()["exitCode"].asInt(), 5);

  putPackage("tunerfw", "2.0.0", "/opt/media/USBDriveA10/");
  EXPECT_EQ(estimate()["directory"].asString(), "/opt/media/USBDriveA10/");
  putPackage("tunerfw", "2.0.0", "/opt/media/USBDriveA3/");
  EXPECT_EQ(estimate()["directory"].asString(), "/opt/media/USBDriveA3/");
  putPackage("tunerfw");
  EXPECT_EQ(estimate()["directory"].asString(), kDrive);
}

TEST_F(UsbTool, TakesPackagesFromANamedDirectory) {
  installModule("libtuner");
  putPackage("tunerfw", "2.0.0", "/tmp/packages/");
  auto named = command("apply");

  named.insert(named.begin() + 2, "/tmp/packages");
  EXPECT_EQ(document(named)["exitCode"].asInt(), 0);
  EXPECT_TRUE(isActive("tunerfw"));

  named[2] = "/tmp/absent";
  EXPECT_EQ(document(named)["exitCode"].asInt(), 2);
}

TEST_F(UsbTool, ReportsAModuleThatFailsToWriteAndGoesOnWithTheOthers) {
  installModule("libtuner");
  installModule("libpanel");
  describeComponent("tunerfw", "fail_at_percent = 30");
  putPackage("tunerfw");
  putPackage("panelfw");

  const Json::Value applied = apply();

  EXPECT_EQ(applied["exitCode"].asInt(), 6);
  EXPECT_EQ(moduleOf(applied, "libtuner")["outcome"].asString(), "module-failed");
  EXPECT_EQ(moduleOf(applied, "libtuner")["versionAfter"].asString(), "0.0.0");
  EXPECT_TRUE(isActive("panelfw"));
}

// The package of the module whose turn comes second, while the first one writes.
class UsbToolMeanwhile : public UsbTool {
 protected:
  // Each update begins with a line in the journal. Here that is a pipe, and the first
  // update waits until somebody reads from it.
  Json::Value applyAndMeanwhile(void (*change)(const std::string& path)) {
    for (const char* name : {"tuner", "panel"}) {
      installModule("lib" + std::string(name));
      putPackage(name + std::string("fw"));
    }
    EXPECT_EQ(mkfifo(kJournal, 0644), 0);
    auto arguments = command("apply");
    arguments.insert(arguments.end(), {"--progress", "ndjson"});
    RunningTool tool(arguments, {{"FW_UPDATE_LOG=none"}});
    tool.waitFor("\"percent\"");
    second = tool.out().find("libtuner") != std::string::npos ? "libpanel" : "libtuner";
    change(kDrive + second.substr(3) + "fw.bin");
    const int reader = open(kJournal, O_RDWR | O_CLOEXEC);
    tool.finish();
    close(reader);
    return lines(tool.out()).back();
  }
  std::string second;
};

TEST_F(UsbToolMeanwhile, ChangedPackageIsRefused) {
  const Json::Value applied = applyAndMeanwhile([](const std::string& path) {
    std::string content = readFile(path);
    content[1000] = static_cast<char>(content[1000] ^ 1);
    writeFile(path, content);
  });

  EXPECT_EQ(applied["exitCode"].asInt(), 5);
  EXPECT_TRUE(moduleOf(applied, second)["needsUpdate"].asBool());
  EXPECT_THAT(moduleOf(applied, second)["reason"].asString(), HasSubstr("no valid signature"));
  EXPECT_FALSE(isActive(second.substr(3) + "fw"));
}

TEST_F(UsbToolMeanwhile, VanishedPackageIsRefused) {
  const Json::Value applied = applyAndMeanwhile([](const std::string& path) { fs::remove(path); });

  EXPECT_EQ(applied["exitCode"].asInt(), 5);
  EXPECT_THAT(moduleOf(applied, second)["reason"].asString(), HasSubstr("can no longer be opened"));
  EXPECT_FALSE(isActive(second.substr(3) + "fw"));
}

// What gives a piece of the key away: four bytes of it, as they are or in hex, six in base64.
std::vector<std::string> piecesOf(const std::string& key) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at + 4 <= key.size(); ++at) {
    const std::string bytes = key.substr(at, 4);
    pieces.push_back(bytes);
    for (const char* const digits : {"0123456789abcdef", "0123456789ABCDEF"}) {
      std::string hex;
      for (const char byte : bytes) {
        hex += digits[static_cast<unsigned char>(byte) >> 4U];
        hex += digits[static_cast<unsigned char>(byte) & 0x0FU];
      }
      pieces.push_back(hex);
    }
  }
  for (std::size_t at = 0; at + 6 <= key.size(); ++at) {
    unsigned char text[9];
    EVP_EncodeBlock(text, reinterpret_cast<const unsigned char*>(key.data()) + at, 6);
    pieces.emplace_back(reinterpret_cast<const char*>(text));
  }
  return pieces;
}

void expectNoPieceOf(const std::string& key, const std::string& place, const std::string& text) {
  for (const std::string& piece : piecesOf(key)) {
    ASSERT_EQ(text.find(piece), std::string::npos) << place;
  }
}

// Every file below, without the zeros that traces mostly are.
std::string contentBelow(const std::string& directory) {
  std::string content;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) {
      content += DeviceTest::readFile(entry.path());
    }
  }
  content.erase(std::remove(content.begin(), content.end(), '\0'), content.end());
  return content;
}

class UsbKey : public UsbTool {
 protected:
  void SetUp() override {
    UsbTool::SetUp();
    secret = "q7\x9c\x01#Zp\xe4u\x13V@x\xb8m\x1f.Tj\xd3h6,\x8eG\xf5w~b\xa2-O";
    ASSERT_EQ(secret.size(), 32u);
    writeKey(secret);
    installModule("libtuner");
    writeFile(kDrive + std::string("tunerfw.bin"),
              usbPackage(secret, "2.0.0", image("tunerfw"), testSigningKey("ed25519")));
  }

  std::string secret;
};

TEST_F(UsbKey, IsLookedForInEveryForm) {
  const auto pieces = piecesOf(secret);

  EXPECT_THAT(pieces,
              ::testing::IsSupersetOf({secret.substr(0, 4), secret.substr(28, 4), std::string("71379c01"),
                                       std::string("71379C01"), std::string("cTecASNa")}));
}

TEST_F(UsbKey, IsInNoOutput) {
  for (const char* const form : {"--log", "--json", "--isolated"}) {
    auto words = command("apply");
    words.emplace_back(form);
    fs::remove("/var/lib/fw-components/tunerfw.flash");
    RunningTool tool(words, {{"FW_UPDATE_LOG=stderr", "FW_UPDATE_LOG_LEVEL=debug"}});

    EXPECT_EQ(tool.finish(), 0) << form;
    expectNoPieceOf(secret, form, tool.out() + tool.err());
  }
}

TEST_F(UsbKey, IsInNoOutputWhenItDoesNotFit) {
  writeKey(std::string(secret.rbegin(), secret.rend()));
  auto words = command("apply");
  words.emplace_back("--log");

  RunningTool tool(words, {{"FW_UPDATE_LOG=stderr"}});

  EXPECT_NE(tool.finish(), 0);
  expectNoPieceOf(std::string(secret.rbegin(), secret.rend()), "output", tool.out() + tool.err());
}

TEST_F(UsbKey, IsInNoFile) {
  EXPECT_EQ(run(command("apply")).exitCode, 0);

  EXPECT_FALSE(contentBelow("/run/fw-trace").empty());
  for (const char* const directory : {"/run", "/var/lib/fw-components", "/dev/shm"}) {
    expectNoPieceOf(secret, directory, contentBelow(directory));
  }
}

TEST_F(UsbKey, IsInNoCommandLineAndNoEnvironment) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  auto words = command("apply");
  for (const char* const word : {"--isolated", "--progress", "ndjson"}) {
    words.emplace_back(word);
  }
  RunningTool tool(words, {{"FW_UPDATE_LOG=none"}});
  tool.waitFor("\"percent\":4");
  const std::string own = std::to_string(getpid());

  for (const auto& process : fs::directory_iterator("/proc")) {
    const std::string number = process.path().filename();
    std::error_code error;
    if (number == own || fs::read_symlink(process.path() / "exe", error) != fs::path(TESTED_TOOL)) {
      continue;
    }
    for (const char* const file : {"cmdline", "environ"}) {
      expectNoPieceOf(secret, file, readFile(process.path() / file));
    }
  }

  // The module would hang on after its tool.
  tool.kill(SIGTERM);
  EXPECT_EQ(tool.finish(), -SIGTERM);
}

TEST_F(UsbTool, NeedsItsOptions) {
  EXPECT_EQ(run({"usb"}).exitCode, 2);
  EXPECT_EQ(run({"usb", "apply"}).exitCode, 2);
  EXPECT_THAT(run({"usb", "apply"}).err, HasSubstr("Try: fw-update usb apply --help"));
  EXPECT_EQ(run({"usb", "format", "--key-file", kKeyFile}).exitCode, 2);
  EXPECT_EQ(run({"usb", "estimate", "--help"}).exitCode, 0);
}

TEST_F(UsbTool, AppliesInAProcessOfItsOwnAndNamesTheModuleThatCrashesThere) {
  fs::copy_file(FAULTY_MODULE, std::string(kControls) + "libfaulty.so");
  putPackage("faultyfw");
  std::vector<std::string> words = command("apply");
  words.emplace_back("--isolated");

  EXPECT_EQ(document(words)["outcome"].asString(), "updated");
  const Json::Value crashed = document(words, {{"FAULTY_MODULE=doUpdate_decryption segv"}});
  const Json::Value checking = document(words, {{"FAULTY_MODULE=checkVersion abort"}});

  EXPECT_EQ(crashed["outcome"].asString(), "module-crashed");
  EXPECT_EQ(crashed["module"].asString(), "libfaulty");
  EXPECT_EQ(crashed["step"].asString(), "package");
  EXPECT_EQ(checking["module"].asString(), "libfaulty");
  EXPECT_EQ(checking["step"].asString(), "check");
}

}  // namespace
