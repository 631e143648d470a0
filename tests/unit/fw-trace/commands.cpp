// SPDX-License-Identifier: Apache-2.0
// What the commands answer, to the letter, for traces of known bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "library-messages.h"
#include "trace-builder.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::int64_t kMillisecond = 1000000;

struct Answer {
  int exitCode = -1;
  std::string output;
  std::string error;
};

// A directory of traces. Their processes started on 2027-01-15 at 08:00 in UTC.
class Commands : public ::testing::Test {
 protected:
  Commands() {
    char name[] = "/tmp/trace-commands-XXXXXX";
    directory_ = mkdtemp(name);
  }
  ~Commands() override { fs::remove_all(directory_); }

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
    const auto needTry = trace.place("isNeedUpdate", MESSAGE_CHECK_BEGINS, "ss");
    const auto updateTime = trace.place("update", MESSAGE_LOCK_WANTED, "sd");
    const auto updateTry = trace.place("update", MESSAGE_LOCK_TAKEN, "s");
    const auto updateStart = trace.place("update", MESSAGE_WRITE_BEGINS, "s");
    const auto succeeded = trace.place("update", MESSAGE_WRITE_SUCCEEDED, "s");
    const auto requestEnds = trace.place("fw_update", MESSAGE_REQUEST_ENDS, "dds");
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

  // What the program says to these words about this directory, or another one.
  Answer answer(const std::string& words, const std::string& directory) const {
    const std::string command = "TZ=UTC " FW_TRACE " " + words + " --directory " + directory + " >" +
                                path("output") + " 2>" + path("error");
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, textOf(path("output")), textOf(path("error"))};
  }
  Answer answer(const std::string& words) const { return answer(words, directory_); }

  // That it has this output, and nothing else to say.
  void expectOutput(const std::string& words, const std::string& output) const {
    const Answer given = answer(words);
    EXPECT_EQ(given.output, output);
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.exitCode, 0);
  }

  // That it fails so.
  void expectFailure(const std::string& words, int exitCode, const std::string& sentence) const {
    const Answer given = answer(words);
    EXPECT_EQ(given.output, "");
    EXPECT_EQ(given.error, "fw-trace: " + sentence + "\n");
    EXPECT_EQ(given.exitCode, exitCode);
  }

 private:
  std::string directory_;
};

constexpr char kAbout[] = "08:00:00.002001  123456/123456789  work(42)  about libtuner\n";
constexpr char kAboutPanel[] =
    "08:00:02.000000  77/77            isNeedUpdate(42)  libpanel Firmware isNeedUpdateModules Try(panelfw)\n"
    "08:00:02.005000  77/77            isNeedUpdate(42)  Error: panelfw Firmware CRC32 different\n"
    "08:00:02.006000  77/77            fw_update(42)  fw_update from Caller Type [6] STATE [-1] DATA "
    "[libpanel]\n";

TEST_F(Commands, ShowTheMessagesOfAllTracesInTimeOrder) {
  putTwo();

  const Answer given = answer("show");

  EXPECT_EQ(given.output, std::string("08:00:00.001500  77/78            work(42)  number 7\n") + kAbout +
                              "08:00:00.003000  77/77            stop(42)  Error: libtuner2\n");
  EXPECT_EQ(given.error,
            "fw-trace: " + path("a.fwtrace") + ": 3 messages found no room and were not recorded.\n");
  EXPECT_EQ(given.exitCode, 0);
}

TEST_F(Commands, ShowMessagesAsJson) {
  putUpdates();

  expectOutput("show --json", expected("show.json"));
}

TEST_F(Commands, ShowWhatFitsAllFilters) {
  putTwo();
  EXPECT_THAT(answer("show --function work").output,
              ::testing::AllOf(HasSubstr("number 7"), HasSubstr("about"), Not(HasSubstr("Error"))));
  EXPECT_EQ(answer("show --function work --module libtuner").output, kAbout);

  const Answer nothing = answer("show --function work --module libtuner --until 08:00:00.002");

  EXPECT_EQ(nothing.output, "");
  EXPECT_THAT(nothing.error, HasSubstr("fw-trace: No message fits.\n"));
  EXPECT_EQ(nothing.exitCode, 3);
}

TEST_F(Commands, ShowWhatNamesTheModuleOrItsFirmware) {
  putUpdates();

  expectOutput("show --module libpanel", kAboutPanel);
  expectOutput("show --module panelfw", kAboutPanel);
}

TEST_F(Commands, TakeTimesForThoseOfTheLastMessagesDay) {
  putUpdates();

  expectOutput(
      "show --since 08:00:02.005 --until 08:00:02.005",
      "08:00:02.005000  77/77            isNeedUpdate(42)  Error: panelfw Firmware CRC32 different\n");
}

TEST_F(Commands, SayWhichTraceCannotBeRead) {
  putUpdates();
  std::ofstream(path("c.fwtrace")) << "no trace";

  const Answer given = answer("show --module panelfw");

  EXPECT_EQ(given.output, kAboutPanel);
  EXPECT_EQ(given.error, "fw-trace: " + path("c.fwtrace") + ": The file is too short for a trace.\n");
  EXPECT_EQ(given.exitCode, 0);
}

TEST_F(Commands, ListTheTracesByTheirStart) {
  putTwo();
  std::ofstream(path("c.fwtrace")) << "no trace";

  expectOutput("list",
               "PROCESS  STATE       STARTED              RECORDS  COMMAND\n"
               "-        unreadable  -                    -        " +
                   path("c.fwtrace") +
                   ": The file is too short for a trace.\n"
                   "77       dead        2027-01-15 08:00:00  2        service --run\n"
                   "123456   dead        2027-01-15 08:00:00  1        service --run\n");
}

TEST_F(Commands, ListTheTracesAsJson) {
  putTwo();
  std::ofstream(path("c.fwtrace")) << "no trace";
  std::string list = expected("list.json");
  for (std::size_t at = 0; (at = list.find('@', at)) != std::string::npos;) {
    list.replace(at, 1, path(""));
  }

  const Answer given = answer("list --json", path(""));

  EXPECT_EQ(given.output, list);
}

TEST_F(Commands, TakeTheTracesThatAreNamed) {
  putTwo();

  EXPECT_EQ(answer("show " + path("a.fwtrace")).output, kAbout);
  EXPECT_EQ(answer("show 123456").output, kAbout);
  EXPECT_THAT(answer("show 77").output,
              ::testing::AllOf(HasSubstr("number 7"), HasSubstr("libtuner2"), Not(HasSubstr("about"))));
  EXPECT_THAT(answer("list 123456 77").output, ::testing::AllOf(HasSubstr("\n77 "), HasSubstr("\n123456 ")));
}

TEST_F(Commands, SayWhichTraceIsNotThere) {
  putTwo();

  expectFailure("show 7", 3, "There is no trace of process 7.");
  const Answer given = answer("show " + path("d.fwtrace"));
  EXPECT_EQ(given.error,
            "fw-trace: " + path("d.fwtrace") + ": The file cannot be opened: No such file or directory.\n");
  EXPECT_EQ(given.exitCode, 4);
}

TEST_F(Commands, FollowNothingThatIsNotThere) {
  putTwo();

  expectFailure("follow 7", 3, "There is no trace of process 7.");
  const Answer given = answer("follow " + path("d.fwtrace"));
  EXPECT_EQ(given.error,
            "fw-trace: " + path("d.fwtrace") + ": The file cannot be opened: No such file or directory.\n");
  EXPECT_EQ(given.exitCode, 4);
}

TEST_F(Commands, CountMessagesWhoseArgumentsDoNotFit) {
  TraceBuilder trace;
  const auto number = trace.place("work", "number %d", "d");
  trace.record(number, 77, 0, {7}).rawRecord(number, 77, 1, fwplatform::trace::Call, "x");
  put("a.fwtrace", trace);

  const Answer given = answer("show " + path("a.fwtrace"));

  EXPECT_EQ(given.exitCode, 0);
  EXPECT_EQ(given.error,
            "fw-trace: " + path("a.fwtrace") + ": 1 messages have arguments that do not fit their place.\n");
}

TEST_F(Commands, SayOfEachTraceThatItIsNotThere) {
  const std::string rest = ": The file cannot be opened: No such file or directory.\n";

  const Answer given = answer("show " + path("d.fwtrace") + " " + path("e.fwtrace"));

  EXPECT_EQ(given.error, "fw-trace: " + path("d.fwtrace") + rest + "fw-trace: " + path("e.fwtrace") + rest);
}

TEST_F(Commands, SayWhenADirectoryHasNoTraces) {
  std::ofstream(path("notes.txt")) << "x";
  const std::string missing = path("missing");

  const Answer none = answer("list");
  const Answer unreadable = answer("list", missing);

  EXPECT_EQ(none.error,
            "fw-trace: There are no traces in " + path("").substr(0, path("").size() - 1) + ".\n");
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_EQ(unreadable.error, "fw-trace: " + missing + " cannot be read: No such file or directory.\n");
  EXPECT_EQ(unreadable.exitCode, 4);
  EXPECT_EQ(none.output + unreadable.output, "");
}

TEST_F(Commands, SumUpWhereTheTimeOfAModuleWent) {
  putUpdates();

  expectOutput("summary",
               "MODULE    ATTEMPTS  TIME    LOCK     CHECK+CRC  MODULE'S  RESULTS\n"
               "libpanel  1         6.0 ms  -        6.0 ms     -         1 refused\n"
               "libtuner  1         1.55 s  15.0 ms  30.0 ms    1.50 s    1 updated\n");
  expectOutput("summary --json", expected("summary.json"));
}

TEST_F(Commands, SayWhenNoModuleWasUpdated) {
  TraceBuilder trace;
  trace.record(trace.place("work", "number %d\n", "d"), 78, 1500000, {7});
  put("a.fwtrace", trace);

  expectOutput("summary", "No module was updated.\n");
}

TEST_F(Commands, ExportATimeline) {
  putUpdates();

  expectOutput("export --format json", expected("timeline.json"));
  expectOutput("export --format perfetto", expected("perfetto.json"));
}

TEST_F(Commands, ExportToAFile) {
  putUpdates();

  expectOutput("export --format json --output " + path("out.json"), "Written to " + path("out.json") + ".\n");

  EXPECT_EQ(textOf(path("out.json")), expected("timeline.json"));
}

TEST_F(Commands, SayWhichTraceIsNotInATimeline) {
  putUpdates();
  std::ofstream(path("c.fwtrace")) << "no trace";

  const Answer given = answer("export --format json");

  EXPECT_EQ(given.output, expected("timeline.json"));
  EXPECT_EQ(given.error, "fw-trace: " + path("c.fwtrace") + ": The file is too short for a trace.\n");
  EXPECT_EQ(given.exitCode, 0);
}

TEST_F(Commands, SayWhenAFileCannotBeWritten) {
  putUpdates();

  expectFailure("export --format json --output " + path("missing/out.json"), 4,
                path("missing/out.json") + " cannot be written.");
  expectFailure("export --format json --output /dev/full", 4, "/dev/full cannot be written.");
}

}  // namespace
