// What the commands answer, to the letter, for traces of known bytes.
#include "commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "known-messages.h"
#include "text-layout.h"
#include "trace-builder.h"

namespace {

namespace fs = std::filesystem;
using namespace tracetool;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t kMillisecond = 1000000;

// A directory of traces. Their processes started on 2027-01-15 at 08:00 in UTC.
class Commands : public ::testing::Test {
 protected:
  Commands() {
    setenv("TZ", "UTC", 1);
    tzset();
    char name[] = "/tmp/trace-commands-XXXXXX";
    directory_ = mkdtemp(name);
    options.directory = directory_;
  }
  ~Commands() override {
    fs::remove_all(directory_);
    unsetenv("TZ");
    tzset();
  }

  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  void put(const std::string& name, const TraceBuilder& trace) const {
    std::ofstream(path(name), std::ios::binary) << trace.bytes();
  }

  // Two processes that speak in turn.
  void putTwo() const {
    TraceBuilder first;
    const auto number = first.place("work", "number %d\n", "d");
    const auto error = first.place("stop", "Error: %s", "s");
    first.record(number, 78, 1500000, {7}).record(error, 77, 3 * kMillisecond, {"libtuner2"});
    TraceBuilder second;
    second.header.processId = 123456;
    second.header.parentId = 77;
    second.header.realTime += 1000;
    second.header.dropped = 3;
    const auto text = second.place("work", "about %s", "s");
    second.record(text, 123456789, 2 * kMillisecond, {"libtuner"});
    put("b.fwtrace", first);
    put("a.fwtrace", second);
  }

  // One update that succeeded, and one that its image ended.
  void putUpdates() const {
    TraceBuilder trace;
    const auto needTry = trace.place("isNeedUpdate", known::kNeedTry, "ss");
    const auto updateTime = trace.place("update", known::kUpdateTime, "sd");
    const auto updateTry = trace.place("update", known::kUpdateTry, "s");
    const auto updateStart = trace.place("update", known::kUpdateStart, "s");
    const auto succeeded = trace.place("update", known::kUpdateSucceeded, "s");
    const auto requestEnds = trace.place("fw_update", known::kRequestEnds, "dds");
    const auto different = trace.place("isNeedUpdate", "Error: %s Firmware CRC32 different", "s");
    trace.record(needTry, 77, 0, {"libtuner", "tunerfw"})
        .record(updateTime, 77, 10 * kMillisecond, {"tunerfw", 30})
        .record(updateTry, 78, 25 * kMillisecond, {"tunerfw"})
        .record(updateStart, 78, 45 * kMillisecond, {"tunerfw"})
        .record(succeeded, 78, 1545 * kMillisecond, {"tunerfw"})
        .record(requestEnds, 77, 1550 * kMillisecond, {4, 0, "libtuner"})
        .record(needTry, 77, 2000 * kMillisecond, {"libpanel", "panelfw"})
        .record(different, 77, 2005 * kMillisecond, {"panelfw"})
        .record(requestEnds, 77, 2006 * kMillisecond, {6, -1, "libpanel"});
    put("updates.fwtrace", trace);
  }

  static std::string textOf(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  static std::string expected(const std::string& name) { return textOf(std::string(EXPECTED) + "/" + name); }

  Options options;

 private:
  std::string directory_;
};

TEST_F(Commands, ShowTheMessagesOfAllTracesInTimeOrder) {
  putTwo();

  const Report report = runShow(options);

  EXPECT_EQ(report.outcome, Outcome::Ok);
  EXPECT_EQ(report.body,
            "08:00:00.001500  77/78            work(42)  number 7\n"
            "08:00:00.002001  123456/123456789  work(42)  about libtuner\n"
            "08:00:00.003000  77/77            stop(42)  Error: libtuner2\n");
  EXPECT_EQ(report.message, "");
}

TEST_F(Commands, ShowAMessageAsJson) {
  putTwo();
  options.json = true;

  const Report report = runShow(options);

  EXPECT_EQ(report.body, "");
  ASSERT_EQ(report.details["messages"].size(), 3U);
  const Json::Value& message = report.details["messages"][1];
  EXPECT_EQ(
      tool::onOneLine(message),
      R"({"arguments":["libtuner"],"file":"service.cpp","format":"about %s","function":"work","line":42,)"
      R"("nanoseconds":1800000000002001000,"processId":123456,"text":"about libtuner",)"
      R"("threadId":123456789,"time":1800000000.002})"
      "\n");
}

TEST_F(Commands, ShowWhatFitsAllFilters) {
  putTwo();
  options.function = "work";
  EXPECT_THAT(runShow(options).body, ::testing::AllOf(HasSubstr("number 7"), HasSubstr("about"),
                                                      ::testing::Not(HasSubstr("Error"))));
  options.module = "libtuner";
  EXPECT_EQ(runShow(options).body, "08:00:00.002001  123456/123456789  work(42)  about libtuner\n");
  options.until = "08:00:00.002";

  const Report report = runShow(options);

  EXPECT_EQ(report.outcome, Outcome::NothingFound);
  EXPECT_EQ(report.message, "No message fits.");
  EXPECT_EQ(report.body, "");
}

TEST_F(Commands, ShowWhatNamesTheModulesFirmware) {
  putUpdates();
  for (const char* const name : {"libpanel", "panelfw"}) {
    options.module = name;

    EXPECT_EQ(runShow(options).body,
              "08:00:02.000000  77/77            isNeedUpdate(42)  libpanel Firmware isNeedUpdateModules "
              "Try(panelfw)\n"
              "08:00:02.005000  77/77            isNeedUpdate(42)  Error: panelfw Firmware CRC32 different\n"
              "08:00:02.006000  77/77            fw_update(42)  fw_update from Caller Type [6] STATE [-1] "
              "DATA [libpanel]\n")
        << name;
  }
}

TEST_F(Commands, TakeTimesForThoseOfTheLastMessagesDay) {
  putUpdates();
  options.since = "08:00:02.005";
  options.until = "08:00:02.005";

  EXPECT_EQ(runShow(options).body,
            "08:00:02.005000  77/77            isNeedUpdate(42)  Error: panelfw Firmware CRC32 different\n");
}

TEST_F(Commands, SayWhatIsMissingInATrace) {
  putTwo();
  std::ofstream(path("c.fwtrace")) << "no trace";

  const Report report = runShow(options);

  ASSERT_EQ(report.details["skipped"].size(), 2U);
  EXPECT_THAT(report.details["skipped"][0].asString(), HasSubstr(path("c.fwtrace") + ": "));
  EXPECT_EQ(report.details["skipped"][1].asString(),
            path("a.fwtrace") + ": 3 messages found no room and were not recorded.");
}

TEST_F(Commands, ListTheTracesByTheirStart) {
  putTwo();
  std::ofstream(path("c.fwtrace")) << "no trace";

  const Report report = runList(options);

  EXPECT_EQ(report.outcome, Outcome::Ok);
  EXPECT_EQ(report.body,
            "PROCESS  STATE       STARTED              RECORDS  COMMAND\n"
            "-        unreadable  -                    -        " +
                path("c.fwtrace") +
                ": The file is too short for a trace.\n"
                "77       dead        2027-01-15 08:00:00  2        service --run\n"
                "123456   dead        2027-01-15 08:00:00  1        service --run\n");
  EXPECT_EQ(
      tool::onOneLine(report.details["traces"]),
      R"([{"bytes":8,"path":")" + path("c.fwtrace") +
          R"(","problem":"The file is too short for a trace.","state":"unreadable"},)"
          R"({"bytes":592,"commandLine":"service --run","dropped":0,"overwritten":false,"parentId":1,"path":")" +
          path("b.fwtrace") +
          R"(","process":"service","processId":77,"records":2,"start":"2027-01-15 08:00:00","state":"dead"},)"
          R"({"bytes":496,"commandLine":"service --run","dropped":3,"overwritten":false,"parentId":77,"path":")" +
          path("a.fwtrace") +
          R"(","process":"service","processId":123456,"records":1,"start":"2027-01-15 08:00:00",)"
          R"("state":"dead"}])"
          "\n");
}

TEST_F(Commands, TakeTheTracesThatAreNamed) {
  putTwo();
  options.traces = {"77"};
  EXPECT_THAT(runShow(options).body, ::testing::AllOf(HasSubstr("number 7"), HasSubstr("libtuner2")));
  EXPECT_THAT(runShow(options).body, ::testing::Not(HasSubstr("about")));
  options.traces = {path("a.fwtrace")};
  EXPECT_EQ(runShow(options).body, "08:00:00.002001  123456/123456789  work(42)  about libtuner\n");
  options.traces = {"123456", "77"};
  EXPECT_EQ(runList(options).details["traces"].size(), 2U);
}

TEST_F(Commands, SayWhichTraceIsNotThere) {
  putTwo();
  options.traces = {"7"};
  EXPECT_EQ(runShow(options).outcome, Outcome::NothingFound);
  EXPECT_EQ(runShow(options).message, "There is no trace of process 7.");
  options.traces = {path("d.fwtrace")};
  EXPECT_EQ(runShow(options).outcome, Outcome::Unreadable);
  EXPECT_EQ(runShow(options).message,
            path("d.fwtrace") + ": The file cannot be opened: No such file or directory.");
}

TEST_F(Commands, SayWhenADirectoryHasNoTraces) {
  std::ofstream(path("notes.txt")) << "x";
  EXPECT_EQ(runShow(options).outcome, Outcome::NothingFound);
  EXPECT_EQ(runShow(options).message, "There are no traces in " + options.directory + ".");
  EXPECT_EQ(runList(options).body, "");
  options.directory += "/missing";
  EXPECT_EQ(runShow(options).outcome, Outcome::Unreadable);
  EXPECT_EQ(runShow(options).message, options.directory + " cannot be read: No such file or directory.");
}

TEST_F(Commands, SumUpWhereTheTimeOfAModuleWent) {
  putUpdates();

  const Report report = runSummary(options);

  EXPECT_EQ(report.body,
            "MODULE    ATTEMPTS  TIME    LOCK     CHECK+CRC  MODULE'S  RESULTS\n"
            "libpanel  1         6.0 ms  -        6.0 ms     -         1 refused\n"
            "libtuner  1         1.55 s  15.0 ms  30.0 ms    1.50 s    1 updated\n");
  EXPECT_EQ(tool::indented(report.details["modules"]), expected("summary.json"));
}

TEST_F(Commands, SayWhenNoModuleWasUpdated) {
  putTwo();

  const Report report = runSummary(options);

  EXPECT_EQ(report.outcome, Outcome::Ok);
  EXPECT_EQ(report.message, "No module was updated.");
  EXPECT_EQ(report.body, "");
}

TEST_F(Commands, ExportATimelineAsJson) {
  putUpdates();
  options.format = "json";

  const Report report = runExport(options);

  EXPECT_TRUE(report.raw);
  EXPECT_EQ(report.body, expected("timeline.json"));
}

TEST_F(Commands, ExportATimelineForPerfetto) {
  putUpdates();
  options.format = "perfetto";

  EXPECT_EQ(runExport(options).body, expected("perfetto.json"));
}

TEST_F(Commands, ExportToAFile) {
  putUpdates();
  options.format = "json";
  const std::string document = runExport(options).body;
  options.output = path("out.json");

  const Report report = runExport(options);

  EXPECT_EQ(report.outcome, Outcome::Ok);
  EXPECT_EQ(report.message, "Written to " + options.output + ".");
  EXPECT_EQ(report.body, "");
  EXPECT_FALSE(report.raw);
  EXPECT_EQ(textOf(path("out.json")), document);
}

TEST_F(Commands, SayWhenAFileCannotBeWritten) {
  putUpdates();
  options.format = "json";
  for (const std::string& output : {path("missing/out.json"), std::string("/dev/full")}) {
    options.output = output;

    const Report report = runExport(options);

    EXPECT_EQ(report.outcome, Outcome::Unreadable) << output;
    EXPECT_EQ(report.message, output + " cannot be written.");
  }
}

}  // namespace
