// SPDX-License-Identifier: Apache-2.0
// Reports, from results that are made up here.
#include "report.h"

#include <gmock/gmock.h>

namespace {

using namespace fwmodule;
using ::testing::HasSubstr;
using ::testing::Not;
using State = CheckResult::State;

constexpr std::size_t kWide = 400;

CheckResult& resultOf(Report& report, Check check) {
  return report.results[static_cast<std::size_t>(check)];
}

void fail(Report& report, Check check, const std::string& message) {
  resultOf(report, check).state = State::Failed;
  resultOf(report, check).findings.push_back({check, EntryPoint::DoUpdate, message});
}

// Everything passed but one check that was not made.
Report cleanReport() {
  Report report;
  report.subject.library = "libdoor";
  report.subject.path = "/tmp/libdoor.so";
  report.subject.firmware = "doorfw";
  report.subject.activeVersion = "1.0";
  for (CheckResult& result : report.results) {
    result.state = State::Passed;
  }
  resultOf(report, Check::FullDisk) = {State::NotChecked, "it has no disk", {}};
  return report;
}

Json::Value documentOf(const Report& report) {
  return frame::documentOf(answerWith(report, kWide), "check");
}

std::string resultIn(const Json::Value& document, const char* id) {
  for (const Json::Value& check : document["checks"]) {
    if (check["id"] == id) {
      return check["result"].asString() + " " + check["reason"].asString();
    }
  }
  return "none";
}

TEST(CheckReport, EndsWellWithoutFindings) {
  const Report report = cleanReport();

  EXPECT_EQ(report.outcome(), Outcome::Ok);
  EXPECT_EQ(report.count(State::Passed), kCheckCount - 1);
  EXPECT_EQ(report.count(State::NotChecked), 1U);
  EXPECT_EQ(report.count(Severity::Error), 0U);
}

TEST(CheckReport, AnErrorOutweighsWarnings) {
  Report report = cleanReport();
  fail(report, Check::Prints, "The module printed.");
  EXPECT_EQ(report.outcome(), Outcome::WarningsFound);

  fail(report, Check::Crash, "doUpdate crashed.");

  EXPECT_EQ(report.outcome(), Outcome::ErrorsFound);
  EXPECT_EQ(report.count(Severity::Warning), 1U);
  EXPECT_EQ(report.count(Severity::Error), 1U);
}

TEST(CheckReport, TellsPeopleWhatWasFoundAndWhatToDo) {
  Report report = cleanReport();
  fail(report, Check::Crash, "doUpdate crashed.");
  fail(report, Check::Prints, "The module printed.");

  const std::string text = reportText(report, kWide);

  EXPECT_THAT(text, HasSubstr("libdoor: a module for the firmware doorfw, version 1.0 on a new device\n"));
  EXPECT_THAT(text, HasSubstr("\nerror        crash "));
  EXPECT_THAT(text, HasSubstr("\nwarning      prints "));
  EXPECT_THAT(text, HasSubstr("\nok           name "));
  EXPECT_THAT(text,
              HasSubstr("\nnot checked  full-disk           A full disk is reported: it has no disk\n"));
  EXPECT_THAT(text, HasSubstr("\nerror crash\n  doUpdate crashed.\n  What to do: Run it in a debugger"));
  EXPECT_THAT(text, HasSubstr("49 checks: 46 passed, 1 error, 1 warning, 1 not checked\n"));
}

TEST(CheckReport, NamesAnExtensionModuleAsOne) {
  Report report = cleanReport();
  report.subject.extension = true;
  report.subject.activeVersion = "";

  EXPECT_THAT(reportText(report, kWide), HasSubstr("libdoor: an EXT- module\n"));
  EXPECT_EQ(documentOf(report)["module"]["kind"], "EXT");
}

TEST(CheckReport, LetsNoModuleSteerTheTerminal) {
  Report report = cleanReport();
  report.subject.activeVersion = "1.0\x1b[2J";
  resultOf(report, Check::FullDisk).reason = "\x1b]0;title\a";
  fail(report, Check::Crash, "getActiveVersion wrote \"\x1b[31m\".");

  EXPECT_THAT(reportText(report, kWide), Not(HasSubstr("\x1b")));
}

TEST(CheckReport, IsOneJsonDocument) {
  Report report = cleanReport();
  fail(report, Check::Crash, "doUpdate crashed.");
  fail(report, Check::Prints, "The module printed.");

  const Json::Value document = documentOf(report);

  EXPECT_EQ(document["ok"], false);
  EXPECT_EQ(document["outcome"], "errors-found");
  EXPECT_EQ(document["exitCode"], 1);
  EXPECT_EQ(document["module"]["file"], "/tmp/libdoor.so");
  EXPECT_EQ(document["module"]["library"], "libdoor");
  EXPECT_EQ(document["module"]["kind"], "ordinary");
  EXPECT_EQ(document["module"]["firmware"], "doorfw");
  EXPECT_EQ(document["module"]["version"], "1.0");
  EXPECT_EQ(document["checks"].size(), kCheckCount);
  EXPECT_EQ(resultIn(document, "crash"), "error ");
  EXPECT_EQ(resultIn(document, "prints"), "warning ");
  EXPECT_EQ(resultIn(document, "name"), "passed ");
  EXPECT_EQ(resultIn(document, "full-disk"), "not-checked it has no disk");
  ASSERT_EQ(document["findings"].size(), 2U);
  EXPECT_EQ(document["findings"][0]["check"], "crash");
  EXPECT_EQ(document["findings"][0]["severity"], "error");
  EXPECT_EQ(document["findings"][0]["entryPoint"], "doUpdate");
  EXPECT_EQ(document["findings"][0]["message"], "doUpdate crashed.");
  EXPECT_EQ(document["findings"][0]["advice"], infoOf(Check::Crash).advice);
  EXPECT_TRUE(documentOf(cleanReport())["ok"].asBool());
}

TEST(CheckReport, IsAJUnitSuite) {
  Report report = cleanReport();
  fail(report, Check::Crash, "It <crashed> & \"burned\"\x1b\xff~.");
  resultOf(report, Check::Crash).findings.push_back({Check::Crash, EntryPoint::Loading, "Twice."});

  const std::string text = reportJunit(report);

  EXPECT_THAT(text, HasSubstr("<testsuite name=\"fw-module check libdoor\" tests=\"49\" failures=\"1\" "
                              "skipped=\"1\">\n"));
  EXPECT_THAT(text, HasSubstr("classname=\"fw-module.libdoor\" name=\"crash\"><failure type=\"error\" "
                              "message=\"It &lt;crashed&gt; &amp; &quot;burned&quot;??~. Twice.\">"));
  EXPECT_THAT(text, HasSubstr("name=\"full-disk\"><skipped message=\"it has no disk\"/></testcase>\n"));
  EXPECT_THAT(text, HasSubstr("name=\"name\"></testcase>\n"));
}

TEST(CheckList, HasEveryCheckWithItsSeverity) {
  const Json::Value document = frame::documentOf(answerWithList(kWide), "check");

  EXPECT_THAT(listText(kWide), HasSubstr("\nprints              warning  Nothing is printed\n"));
  EXPECT_EQ(document["ok"], true);
  ASSERT_EQ(document["checks"].size(), kCheckCount);
  EXPECT_EQ(document["checks"][0]["id"], "library");
  EXPECT_EQ(document["checks"][0]["severity"], "error");
  EXPECT_EQ(document["checks"][0]["advice"], infoOf(Check::Library).advice);
}

}  // namespace
