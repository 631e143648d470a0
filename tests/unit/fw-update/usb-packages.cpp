// SPDX-License-Identifier: Apache-2.0
// What each module's messages say of its package, when all modules' stand in one log.
#include "usb/usb-packages.h"

#include <gmock/gmock.h>

#include "library-messages.h"
#include "messages.h"

namespace {

using ::testing::HasSubstr;
using tool::LogMessage;
using tool::LogMessages;
using tool::Outcome;
using tool::PackageState;

constexpr char kSigned[] = "[zaq][%s] the file is signed successfully : %s\n";

LogMessage signatureMessage(const std::string& format, const std::string& text) {
  LogMessage checked = message(format, {"UserCaller", text});
  checked.function = "zaq_verify";
  return checked;
}

LogMessage signedPackage(const std::string& firmware) {
  return signatureMessage(kSigned, "/usb/" + firmware + ".bin");
}

LogMessage withoutVerifier() {
  return signatureMessage(MESSAGE_VERIFIER_NOT_LOADED, "cannot open shared object file");
}

tool::Library libraryOf(const std::vector<std::string>& names) {
  tool::Library library;
  for (const std::string& name : names) {
    library.items.emplace_back(("lib" + name).c_str(), "1.0.0", (name + "fw").c_str());
  }
  return library;
}

PackageState neededPackage(const std::string& name) {
  return {"lib" + name, name + "fw", "1.0.0", true, 10, false, {Outcome::Ok, "", ""}};
}

TEST(UsbEstimate, ReadsNeedAndTimeOfEachModule) {
  const LogMessages log = {signedPackage("tunerfw"), message(MESSAGE_USB_PACKAGE_NEEDED, {"tunerfw", "30"}),
                           signedPackage("panelfw")};

  const auto states = tool::readEstimate(libraryOf({"tuner", "panel"}), log);

  ASSERT_EQ(states.size(), 2U);
  EXPECT_TRUE(states[0].needed);
  EXPECT_EQ(states[0].seconds, 30);
  EXPECT_FALSE(states[1].needed);
  EXPECT_EQ(states[1].finding.outcome, Outcome::NothingToDo);
  EXPECT_THAT(states[1].finding.message, HasSubstr("version 1.0.0 is active"));
}

TEST(UsbEstimate, GivesMessagesWithoutANameToTheModuleWhoseTurnItIs) {
  const LogMessages log = {withoutVerifier(), message("Error: iv is worng"), withoutVerifier(),
                           message("Error: Decryption data is null"), withoutVerifier()};

  const auto states = tool::readEstimate(libraryOf({"tuner", "panel", "wifi"}), log);

  EXPECT_THAT(states[0].finding.message, HasSubstr("libtuner is too short"));
  EXPECT_THAT(states[1].finding.message, HasSubstr("libpanel cannot be decrypted"));
  EXPECT_EQ(states[2].finding.outcome, Outcome::NothingToDo);
}

TEST(UsbEstimate, KnowsThatExtensionModulesHaveNoTurn) {
  const LogMessages log = {signedPackage("tunerfw"), message(MESSAGE_USB_PACKAGE_NEEDED, {"tunerfw", "30"})};

  const auto states = tool::readEstimate(libraryOf({"EXT-remote", "tuner"}), log);

  EXPECT_FALSE(states[0].needed);
  EXPECT_TRUE(states[1].needed);
}

TEST(UsbEstimate, NoticesThatSignaturesWereNotChecked) {
  EXPECT_TRUE(tool::signaturesChecked({signedPackage("tunerfw")}));
  EXPECT_FALSE(tool::signaturesChecked({withoutVerifier()}));
  EXPECT_FALSE(
      tool::signaturesChecked({signatureMessage(MESSAGE_VERIFIER_WITHOUT_ENTRY, "undefined symbol")}));
}

TEST(UsbResults, AreEachModulesOwn) {
  std::vector<PackageState> states = {neededPackage("tuner"), neededPackage("panel"), neededPackage("wifi")};
  const LogMessages log = {
      signedPackage("tunerfw"),
      message(MESSAGE_WRITE_BEGINS, {"tunerfw"}),
      message("========== [ %s update succeeded ] ==========", {"tunerfw"}),
      message("Error: %s file open", {"/usb/panelfw.bin"}),
      message("update fail [%s]", {"panelfw"}),
      withoutVerifier(),
      message("Error: iv is worng"),
      message("update fail [%s]", {"wififw"}),
  };

  tool::readResults(states, log);

  EXPECT_EQ(states[0].finding.outcome, Outcome::Updated);
  EXPECT_THAT(states[1].finding.message, HasSubstr("can no longer be opened"));
  EXPECT_THAT(states[2].finding.message, HasSubstr("libwifi is too short"));
  EXPECT_EQ(tool::firstProblem(states)->message, states[1].finding.message);
}

TEST(UsbResults, DoNotTakeOneFirmwareForAnotherThatEndsAlike) {
  std::vector<PackageState> states = {neededPackage("tuner"), neededPackage("bigtuner")};
  const LogMessages log = {
      message("Error: %s file open", {"/usb/bigtunerfw.bin"}),
      signedPackage("tunerfw"),
      message("========== [ %s update succeeded ] ==========", {"tunerfw"}),
  };

  tool::readResults(states, log);

  EXPECT_EQ(states[0].finding.outcome, Outcome::Updated);
  EXPECT_EQ(states[1].finding.outcome, Outcome::RefusedImage);
}

TEST(UsbResults, LeaveAloneWhatNeededNoPackage) {
  std::vector<PackageState> states = {neededPackage("tuner")};
  states[0].needed = false;
  states[0].finding = {Outcome::NothingToDo, "It has this version.", ""};
  const LogMessages log = {
      signedPackage("tunerfw"),
      message("Error: iv is worng"),
  };

  tool::readResults(states, log);

  EXPECT_EQ(states[0].finding.outcome, Outcome::NothingToDo);
  EXPECT_EQ(states[0].finding.message, "It has this version.");
}

TEST(UsbProgress, BelongsToThePackageThatIsBeingWritten) {
  const std::vector<PackageState> states = {neededPackage("tuner"), neededPackage("panel")};
  LogMessages log = {signedPackage("panelfw")};
  EXPECT_FALSE(tool::runningPackage(states, log));

  log.push_back(message(MESSAGE_WRITE_BEGINS, {"panelfw"}));
  ASSERT_TRUE(tool::runningPackage(states, log));
  EXPECT_EQ(tool::runningPackage(states, log)->index, 1U);

  log.push_back(message("========== [ %s update succeeded ] ==========", {"panelfw"}));
  EXPECT_FALSE(tool::runningPackage(states, log));
}

}  // namespace
