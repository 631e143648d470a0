// SPDX-License-Identifier: Apache-2.0
#include "library/log-meanings.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <limits>
#include <map>
#include <ostream>

#include "library-messages.h"
#include "library/library.h"
#include "messages.h"

namespace tool {
void PrintTo(Outcome outcome, std::ostream* stream) {
  *stream << infoOf(outcome).id;
}
}  // namespace tool

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using tool::LogMessages;
using tool::Outcome;

tool::LogMessage timeOut() {
  auto timeOut = message("%s", {"tunerfw update timeout"});
  timeOut.function = "update_timeout_wrapper";
  return timeOut;
}

tool::LogMessage caught() {
  auto caught = message("Error : %s", {"tunerfw update timeout"});
  caught.function = "doUpdateFirmware";
  return caught;
}

// As a module writes it into the log.
tool::LogMessage said(const std::string& text, int priority = 6) {
  tool::LogMessage said = message("");
  said.text = text;
  said.priority = priority;
  return said;
}

TEST(MeaningOfAFailure, HasTheModulesOwnReason) {
  const auto failed = message(MESSAGE_WRITE_FAILED, {"tunerfw", "7", "0", "Success"});

  const auto finding = tool::explainUpdate(
      7,
      {said("libtuner: the flash does not answer"), said("libtuner: failed at 60 percent.\n"),
       said("libtuner: cleaned up", 4), said("libwifi: something else"), failed},
      "libtuner");

  EXPECT_EQ(finding.message,
            "libtuner could not write the firmware: it answered 7. It said: failed at 60 percent.");
}

TEST(MeaningOfAFailure, HasNoMoreOfALongReasonThanItsBeginning) {
  const auto failed = message(MESSAGE_WRITE_FAILED, {"tunerfw", "7", "0", "Success"});

  const auto finding =
      tool::explainUpdate(7, {said("libtuner: " + std::string(200, 'x') + "y"), failed}, "libtuner");

  EXPECT_EQ(finding.message,
            "libtuner could not write the firmware: it answered 7. It said: " + std::string(200, 'x') + ".");
}

TEST(MeaningOfAFailure, SaysWhatTheErrorNumberMeansThatTheModuleAnswered) {
  tool::LogMessage failed =
      message(MESSAGE_WRITE_FAILED, {"tunerfw", "-74", "2", "No such file or directory"});
  failed.errorNumber = ENOENT;  // an older one

  const auto finding = tool::explainUpdate(-74, {failed}, "libtuner");

  EXPECT_EQ(finding.message, "libtuner could not write the firmware: it answered -74 (Bad message).");
}

TEST(MeaningOfAFailure, HasTheSystemsErrorWhereTheModulesAnswerIsNone) {
  tool::LogMessage failed = message(MESSAGE_WRITE_FAILED, {"tunerfw", "7", "28", "No space left on device"});
  failed.errorNumber = ENOSPC;

  const auto finding = tool::explainUpdate(7, {failed}, "libtuner");

  EXPECT_EQ(finding.message,
            "libtuner could not write the firmware: it answered 7 (No space left on device).");
}

TEST(MeaningOfAFailure, TakesNoOtherAnswerForAnErrorNumber) {
  EXPECT_EQ(tool::answerText(-5), "-5 (Input/output error)");
  EXPECT_EQ(tool::answerText(-1), "-1");
  EXPECT_EQ(tool::answerText(5), "5");
  EXPECT_EQ(tool::answerText(-4000), "-4000");
  EXPECT_EQ(tool::answerText(std::numeric_limits<int>::min()), "-2147483648");
}

TEST(MeaningOfAFailure, HasNoReasonOfASuccessOrOfTheLibrarysRefusal) {
  const auto reason = said("libtuner: failed at 60 percent");

  EXPECT_THAT(tool::explainUpdate(0, {reason, message(MESSAGE_WRITE_SUCCEEDED)}, "libtuner").message,
              Not(HasSubstr("60 percent")));
  EXPECT_THAT(tool::explainUpdate(-1, {reason, message(MESSAGE_NO_USB_DRIVE)}, "libtuner").message,
              Not(HasSubstr("60 percent")));
}

struct Case {
  const char* name;
  LogMessages messages;
  Outcome outcome;
  const char* sentence;
};

void PrintTo(const Case& value, std::ostream* stream) {
  *stream << value.name;
}

class MeaningOfMessages : public ::testing::TestWithParam<Case> {};

TEST_P(MeaningOfMessages, IsTheOneThatTellsMost) {
  const auto finding = tool::strongestMeaning(GetParam().messages, "libtuner");

  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->outcome, GetParam().outcome);
  EXPECT_THAT(finding->message, HasSubstr(GetParam().sentence));
  EXPECT_THAT(finding->message + finding->remedy, Not(HasSubstr("{")));
}

// As the library logs it for a USB package.
tool::LogMessage ofPackage(const std::string& format, std::vector<std::string> arguments = {}) {
  auto logged = message(format, std::move(arguments));
  logged.function = "getNeedUpdateList";
  return logged;
}

const Case kPackageCases[] = {
    {"NoPackage",
     {ofPackage("Error: %s open fail", {"/nowhere/tunerfw.bin"})},
     Outcome::NothingToDo,
     "There is no package for libtuner."},
    {"PackageIsNoFile",
     {ofPackage("Error: %s open fail", {"/proc/self"})},
     Outcome::RefusedImage,
     "/proc/self cannot be opened"},
    {"PackageGone",
     {ofPackage("Error: %s file open", {"/nowhere/tunerfw.bin"})},
     Outcome::RefusedImage,
     "can no longer be opened"},
    {"NotSignedWhenEstimated",
     {ofPackage("Error: %s is NOT signed", {"/usb/tunerfw.bin"})},
     Outcome::RefusedImage,
     "/usb/tunerfw.bin has no valid signature"},
    {"NotSignedWhenApplied",
     {ofPackage("Error: %s file is NOT signed", {"/usb/tunerfw.bin"})},
     Outcome::RefusedImage,
     "/usb/tunerfw.bin has no valid signature"},
    {"ShorterThanAnIv", {ofPackage("Error: iv is worng")}, Outcome::RefusedImage, "too short"},
    {"NotDecrypted",
     {ofPackage("Error: Decryption data is null")},
     Outcome::RefusedImage,
     "cannot be decrypted"},
    {"WrongPackageKey",
     {ofPackage("Error: %s Firmware CheckVersion Fail", {"tunerfw"})},
     Outcome::RefusedImage,
     "the key is not the package's"},
    {"NoExpectedTime",
     {ofPackage("Error: %s getExpectedTime Fail", {"tunerfw"})},
     Outcome::ModuleFailed,
     "does not say how long"},
};

INSTANTIATE_TEST_SUITE_P(OfPackages, MeaningOfMessages, ::testing::ValuesIn(kPackageCases),
                         [](const auto& tested) { return tested.param.name; });

const Case kCases[] = {
    {"Updated",
     {message("========== [ %s update succeeded ] ==========", {"tunerfw"})},
     Outcome::Updated,
     "libtuner was updated."},
    {"TimedOut",
     {message("%s update time %d ms", {"tunerfw", "10"}), timeOut(), caught()},
     Outcome::TimedOut,
     "gave up after 12 s (expected 10 s)"},
    {"ModuleThrew",
     {message("Error : %s", {"flash lost"})},
     Outcome::ModuleFailed,
     "of its own: flash lost."},
    {"LockDenied",
     {message("Parent\t: [sem_open] Failed\n", {}, EACCES)},
     Outcome::NotPermitted,
     "may not use"},
    {"LockBroken",
     {message("Parent\t: [sem_open] Failed\n", {}, EMFILE)},
     Outcome::Unexpected,
     "Too many open files"},
    {"WriteFailed",
     {message("Error: %s Firmware doUpdate Fail %d (%d:%m)", {"tunerfw", "-5", "5", "I/O"}, EIO)},
     Outcome::ModuleFailed,
     "answered -5 (Input/output error)."},
    {"WriteFailedWithoutErrno",
     {message("Error: %s Firmware doUpdate Fail %d (%d:%m)", {"tunerfw", "9", "0", "Success"})},
     Outcome::ModuleFailed,
     "answered 9."},
    {"WriteDenied",
     {message("Error: %s Firmware doUpdate Fail %d (%d:%m)", {"tunerfw", "-13", "13", "Denied"}, EACCES)},
     Outcome::NotPermitted,
     "(Denied)"},
    {"ProcedureFailed",
     {message("Error: %s runProcess Fail (%d:%m)", {"libtuner", "2", "No such file"}, ENOENT)},
     Outcome::ModuleFailed,
     "failed (No such file)."},
    {"CheckFailed",
     {message("Error: %s Firmware CheckVersion Fail", {"tunerfw"})},
     Outcome::ModuleFailed,
     "could not compare"},
    {"NoPackage",
     {message("Error: file no exist (%s)", {"/p/tunerempfw.img"}, ENOENT)},
     Outcome::RefusedImage,
     "no extension package at /p/tunerempfw.img."},
    {"PackageNotMountable",
     {message("Error: Firmware EMP Mount Fail.(%s)", {"tunerempfw"})},
     Outcome::RefusedImage,
     "tunerempfw could not be mounted"},
    {"MountPointDenied",
     {message("Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]",
              {"/emps/t", "-1", "13", "d", "d"}),
      message("Error: Firmware EMP Mount Fail.(%s)", {"tunerempfw"})},
     Outcome::NotPermitted,
     "may not create the directory /emps/t"},
    {"NoDrive",
     {message("Error: Usb mount path Not found."),
      message("Error: Firmware binary file no exist (%s)", {""})},
     Outcome::RefusedImage,
     "No USB drive"},
    {"NoImage",
     {message("Error: Firmware binary file no exist (%s)", {"/i/t.bin"}, ENOENT)},
     Outcome::RefusedImage,
     "no firmware image at /i/t.bin."},
    {"ImageHidden",
     {message("Error: Firmware binary file no exist (%s)", {"/nowhere/t.bin"}, EACCES)},
     Outcome::NotPermitted,
     "may not see the firmware image /nowhere/t.bin."},
    {"NoDescription",
     {message("Error: Firmware json file no exist (%s)", {"/i/info.json"}, ENOENT)},
     Outcome::RefusedImage,
     "/i/info.json is missing."},
    {"BadDescription",
     {message("Error: json loadInformation fail.(%s)\n", {"/i/info.json"}),
      message("Error: json information load fail")},
     Outcome::RefusedImage,
     "/i/info.json is not a valid"},
    {"ReadableDescriptionWithStaleErrno",
     {message("Error: json loadInformation fail.(%s)\n", {"/proc/self/stat"}, EACCES)},
     Outcome::RefusedImage,
     "is not a valid"},
    {"BadNumber",
     {message("Error: json crc read fail error:%s (%s)\n", {"no UInt", "/i/info.json"}),
      message("Error: json information load fail")},
     Outcome::RefusedImage,
     "/i/info.json has a \"crc\" or \"expected_time\""},
    {"DescriptionAlone",
     {message("Error: json information load fail")},
     Outcome::RefusedImage,
     "info.json could not be read"},
    {"UnreadableImage",
     {message("Error: binary file is NULL\n", {}, EACCES),
      message("Error: %s Firmware CRC32 different", {"tunerfw"})},
     Outcome::NotPermitted,
     "may not read the firmware image"},
    {"DamagedImage",
     {message("Error: %s Firmware CRC32 different", {"tunerfw"})},
     Outcome::RefusedImage,
     "image of tunerfw is damaged"},
    {"ImageChanged",
     {message("Error: %s Firmware crc32 different", {"tunerfw"})},
     Outcome::RefusedImage,
     "changed while the update waited"},
    {"UpToDate",
     {message("Error: %s not need update, version is %s", {"/p/t.img", "2.0.0"})},
     Outcome::NothingToDo,
     "version 2.0.0 is active"},
    {"NoLongerNeeded",
     {message("Error: %s Firmware not need update", {"tunerfw"})},
     Outcome::NothingToDo,
     "no longer needs"},
    {"NotLoadable",
     {message("Error: dlsym libfile: %s error: %s\n", {"/c/libtuner.so", "file too short"})},
     Outcome::BrokenModule,
     "libtuner.so is not a library that can be loaded: file too short."},
    {"LacksEntryPoint",
     {message("Error: dlsym error: %s\n", {"undefined symbol: doUpdate"})},
     Outcome::BrokenModule,
     "undefined symbol: doUpdate."},
    {"NoIdentifier",
     {message("Error: EMPID is empty.(%s)", {"libtuner"})},
     Outcome::BrokenModule,
     "no package identifier"},
    {"BadIdentifier",
     {message("Error: use EMPID only English and numbers. %s", {"a-b"})},
     Outcome::BrokenModule,
     "\"a-b\"; only letters and digits"},
    {"WrongIdentifier",
     {message("Error: EMPID is Wrong (%s)", {"EMP1"})},
     Outcome::BrokenModule,
     "\"EMP1\", which does not contain"},
    {"ControlsDenied",
     {message("File System Exception: %s ", {"open: Permission denied: /c"})},
     Outcome::NotPermitted,
     "may not read the modules' directory"},
    {"NoControls",
     {message("File System Exception: %s ", {"open: No such file"})},
     Outcome::NoControls,
     "cannot be read"},
};

INSTANTIATE_TEST_SUITE_P(EachText, MeaningOfMessages, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Meanings, IgnoreMissingOptionalEntryPoints) {
  auto optional = message("Error: dlsym error: %s\n", {"undefined symbol: getUpdateProgress"});
  optional.priority = 3;

  EXPECT_FALSE(tool::strongestMeaning({optional}, "libtuner"));
}

TEST(Meanings, TakeBracesInArgumentsAsText) {
  const auto finding = tool::strongestMeaning({message("Error : %s", {"{0} {module}"})}, "libtuner");

  ASSERT_TRUE(finding);
  EXPECT_THAT(finding->message, HasSubstr("of its own: {0} {module}."));
}

TEST(UpdateResult, OneWithoutATimeOutIsTheModulesOwn) {
  const auto finding = tool::explainUpdate(
      1, {message("Error: %s Firmware doUpdate Fail %d (%d:%m)", {"tunerfw", "1", "0", ""})}, "libtuner");

  EXPECT_EQ(finding.outcome, Outcome::ModuleFailed);
}

TEST(UpdateResult, OfAnUpdateWhoseEndWasMissedIsStillUpdated) {
  const LogMessages messages{message("========== [ %s update succeeded ] ==========", {"tunerfw"}),
                             timeOut()};

  const auto finding = tool::explainUpdate(1, messages, "libtuner");

  EXPECT_EQ(finding.outcome, Outcome::Updated);
  EXPECT_THAT(finding.message, HasSubstr("only when its time limit was over"));
}

TEST(UpdateResult, OfAnUpdateWhoseEndWasMissedIsHowItEnded) {
  const LogMessages messages{message("Error: %s Firmware crc32 different", {"tunerfw"}), timeOut(), caught()};

  const auto finding = tool::explainUpdate(1, messages, "libtuner");

  EXPECT_EQ(finding.outcome, Outcome::RefusedImage);
  EXPECT_THAT(finding.message, HasSubstr("only when its time limit was over"));
}

struct SilentCase {
  const char* name;
  int result;
  LogMessages messages;
  Outcome outcome;
};

void PrintTo(const SilentCase& value, std::ostream* stream) {
  *stream << value.name;
}

class SilentResult : public ::testing::TestWithParam<SilentCase> {};

TEST_P(SilentResult, IsExplainedByHowFarTheUpdateCame) {
  EXPECT_EQ(tool::explainUpdate(GetParam().result, GetParam().messages, "libtuner").outcome,
            GetParam().outcome);
}

const SilentCase kSilentCases[] = {
    {"Procedure", 0, {message(MESSAGE_PROCEDURE_BEGINS, {""})}, Outcome::Updated},
    {"RefusedRequest",
     -1,
     {message(MESSAGE_CHECK_BEGINS, {"", ""}), message(MESSAGE_LOCK_TAKEN, {""})},
     Outcome::ModuleFailed},
    {"OddAnswer", 2, {message(MESSAGE_CHECK_BEGINS, {"", ""})}, Outcome::ModuleFailed},
    {"EarlyReturn",
     0,
     {message(MESSAGE_CHECK_BEGINS, {"", ""}), message(MESSAGE_LOCK_TAKEN, {""})},
     Outcome::Unexpected},
    {"NothingAtAll", -1, {}, Outcome::Unexpected},
};

INSTANTIATE_TEST_SUITE_P(Each, SilentResult, ::testing::ValuesIn(kSilentCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(UpdateResult, OfAnUpdateThatWasNotWaitedForSaysSo) {
  const auto finding = tool::explainUpdate(
      0, {message(MESSAGE_CHECK_BEGINS, {"", ""}), message(MESSAGE_LOCK_TAKEN, {""})}, "libtuner");

  EXPECT_EQ(finding.message,
            "The library stopped waiting for libtuner before it was done, as it does when the set's clock is "
            "put forward.");
  EXPECT_EQ(finding.remedy, "Start the update again when the clock is set.");
}

TEST(TimeLimit, IsTwoSecondsMoreThanExpectedAndWraps) {
  const auto usual = tool::timeLimit({message(MESSAGE_LOCK_WANTED, {"tunerfw", "10"})});
  const auto wrapped = tool::timeLimit({message(MESSAGE_LOCK_WANTED, {"tunerfw", "-1"})});

  ASSERT_TRUE(usual && wrapped);
  EXPECT_EQ(usual->expected, 10u);
  EXPECT_EQ(usual->givesUp, 12u);
  EXPECT_EQ(wrapped->expected, 4294967295u);
  EXPECT_EQ(wrapped->givesUp, 1u);
  EXPECT_FALSE(tool::timeLimit({}));
}

// Scripts go by both.
TEST(Outcomes, HaveTheNamesAndCodesThatAreDocumented) {
  const std::map<std::string, int> documented = {
      {"ok", 0},
      {"updated", 0},
      {"unexpected-error", 1},
      {"already-running", 1},
      {"stopped", 1},
      {"not-known", 1},
      {"usage", 2},
      {"nothing-to-do", 3},
      {"no-such-module", 4},
      {"refused-image", 5},
      {"module-failed", 6},
      {"timed-out", 7},
      {"not-permitted", 8},
      {"broken-module", 9},
      {"no-controls-directory", 10},
      {"download-failed", 11},
      {"lock-in-use", 12},
      {"module-crashed", 13},
      {"module-hung", 14},
      {"other-version", 15},
  };

  std::map<std::string, int> found;
  for (const auto& info : tool::kOutcomeTable) {
    EXPECT_TRUE(found.emplace(info.id, info.exitCode).second) << info.id;
  }
  EXPECT_STREQ(tool::infoOf(tool::Outcome::Ok).id, "ok");
  EXPECT_STREQ(tool::infoOf(tool::Outcome::NotPermitted).id, "not-permitted");
  EXPECT_STREQ(tool::infoOf(tool::Outcome::NotKnown).id, "not-known");
  EXPECT_STREQ(tool::infoOf(tool::Outcome::ModuleHung).id, "module-hung");

  EXPECT_EQ(found, documented);
}

}  // namespace
