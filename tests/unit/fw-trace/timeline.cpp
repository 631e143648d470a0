// SPDX-License-Identifier: Apache-2.0
#include "timeline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <fstream>
#include <list>
#include <map>
#include <sstream>

#include "export/format.h"
#include "library-messages.h"
#include "temporary-folder.h"
#include "trace-builder.h"
#include "trace-store.h"

namespace {

using namespace tracetool;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kClient = 77;
constexpr std::uint32_t kWorker = 78;
constexpr std::int64_t kMs = 1000000;

// A trace of the library's messages; times in milliseconds.
class Story {
 public:
  Story& say(std::uint32_t thread, std::int64_t time, const char* format,
             const std::vector<Argument>& arguments, const char* function = "work") {
    std::string types;
    for (const Argument& argument : arguments) {
      types += std::holds_alternative<std::int32_t>(argument) ? 'd' : 's';
    }
    const auto known = places_.find(format);
    const std::uint32_t place =
        known != places_.end() ? known->second : builder_.place(function, format, types);
    places_[format] = place;
    builder_.record(place, thread, time * kMs, arguments);
    return *this;
  }

  // The way of a file update up to the module's turn.
  Story& untilModule() {
    say(kClient, 0, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"});
    say(kClient, 10, MESSAGE_LOCK_WANTED, {"tunerfw", 30});
    say(kWorker, 25, MESSAGE_LOCK_TAKEN, {"tunerfw"});
    return say(kWorker, 45, MESSAGE_WRITE_BEGINS, {"tunerfw"});
  }

  Story& requestEnds(std::int64_t time, int state) {
    return say(kClient, time, MESSAGE_REQUEST_ENDS, {4, state, "libtuner"});
  }

  const Timeline& tell(bool alive = false) {
    files_.resize(1);
    files_[0].trace = readTrace(builder_.bytes()).trace;
    files_[0].alive = alive;
    timeline_ = timelineOf(files_);
    return timeline_;
  }

 private:
  TraceBuilder builder_;
  std::map<std::string, std::uint32_t> places_;
  std::vector<TraceFile> files_;
  Timeline timeline_;
};

TEST(Timeline, TakesAnUpdateApartIntoItsStages) {
  Story story;
  story.untilModule().say(kWorker, 145, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"}).requestEnds(150, 0);

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  const Update& update = updates[0];
  EXPECT_EQ(update.module, "libtuner");
  EXPECT_EQ(update.firmware, "tunerfw");
  EXPECT_EQ(update.caller, 4);
  EXPECT_EQ(update.result, Result::Updated);
  EXPECT_EQ(update.span.length(), 150 * kMs);
  EXPECT_EQ(update.timeIn(Stage::Check), 10 * kMs);
  EXPECT_EQ(update.timeIn(Stage::WaitForLock), 15 * kMs);
  EXPECT_EQ(update.timeIn(Stage::Prepare), 20 * kMs);
  EXPECT_EQ(update.timeIn(Stage::InModule), 100 * kMs);
}

TEST(Timeline, TellsWhyAModuleFailed) {
  Story story;
  story.untilModule().say(kWorker, 60, MESSAGE_WRITE_FAILED, {"tunerfw", 5, 2}).requestEnds(61, 5);

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].result, Result::ModuleFailed);
  EXPECT_EQ(updates[0].reason, "Error: tunerfw Firmware doUpdate Fail 5 (2:No such file or directory)");
  EXPECT_EQ(updates[0].timeIn(Stage::InModule), 15 * kMs);
}

TEST(Timeline, TellsATimedOutUpdateWhoseModuleRunsOn) {
  Story story;
  story.untilModule()
      .say(kClient, 2000, MESSAGE_TIMED_OUT, {"tunerfw update timeout"}, "update_timeout_wrapper")
      .requestEnds(2001, 1)
      .say(kWorker, 3045, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].result, Result::TimedOut);
  EXPECT_EQ(updates[0].timeIn(Stage::InModule), 3000 * kMs);
}

TEST(Timeline, TellsARefusedImage) {
  Story story;
  story.say(kClient, 0, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"})
      .say(kClient, 5, "Error: %s Firmware CRC32 different", {"tunerfw"})
      .requestEnds(6, -1);

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].result, Result::Refused);
  EXPECT_EQ(updates[0].reason, "Error: tunerfw Firmware CRC32 different");
  EXPECT_EQ(updates[0].module, "libtuner");
}

TEST(Timeline, TellsAnImageThatIsNotNeeded) {
  Story story;
  story.say(kClient, 0, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"})
      .say(kClient, 5, MESSAGE_NOT_NEEDED, {"/opt/tunerempfw.img", "2.0.0"})
      .requestEnds(6, 0);

  EXPECT_EQ(story.tell().updates.at(0).result, Result::NotNeeded);
}

TEST(Timeline, TellsAnUnknownModule) {
  Story story;
  story.requestEnds(1, -1);

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].module, "libtuner");
  EXPECT_EQ(updates[0].result, Result::Refused);
}

TEST(Timeline, TakesAMereQueryForNoUpdate) {
  Story story;
  story.say(kClient, 0, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"})
      .say(kClient, 5, MESSAGE_CHECK_BEGINS, {"libwifi", "wififw"});

  EXPECT_THAT(story.tell().updates, IsEmpty());
}

TEST(Timeline, TellsAnInterruptedUpdateFromARunningOne) {
  Story story;
  story.untilModule();

  EXPECT_EQ(story.tell(true).updates.at(0).result, Result::Running);
  EXPECT_EQ(story.tell(false).updates.at(0).result, Result::Interrupted);
}

TEST(Timeline, TellsAProcedureOfAModulesOwn) {
  Story story;
  story.say(kClient, 0, MESSAGE_PROCEDURE_BEGINS, {""}).requestEnds(40, 0);

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].module, "libtuner");
  EXPECT_EQ(updates[0].result, Result::Updated);
  EXPECT_EQ(updates[0].timeIn(Stage::InModule), 40 * kMs);
}

TEST(Timeline, TellsAUsbPackageWithoutARequest) {
  Story story;
  story.say(kClient, 0, MESSAGE_WRITE_BEGINS, {"tunerfw"})
      .say(kClient, 70, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(1));
  EXPECT_EQ(updates[0].name(), "tunerfw");
  EXPECT_EQ(updates[0].result, Result::Updated);
  EXPECT_EQ(updates[0].timeIn(Stage::InModule), 70 * kMs);
}

TEST(Timeline, TellsTheModulesOfAnUpdateOfAllApart) {
  Story story;
  story.untilModule()
      .say(kWorker, 50, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"})
      .say(kClient, 60, MESSAGE_LOCK_WANTED, {"wififw", 30})
      .say(kWorker + 1, 61, MESSAGE_LOCK_TAKEN, {"wififw"})
      .say(kWorker + 1, 65, MESSAGE_WRITE_BEGINS, {"wififw"})
      .say(kWorker + 1, 95, MESSAGE_WRITE_SUCCEEDED, {"wififw"});

  const auto& updates = story.tell().updates;

  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_EQ(updates[0].name(), "libtuner");
  EXPECT_EQ(updates[0].result, Result::Updated);
  EXPECT_EQ(updates[1].name(), "wififw");
  EXPECT_EQ(updates[1].result, Result::Updated);
  EXPECT_EQ(updates[1].timeIn(Stage::InModule), 30 * kMs);
}

// ---- Updates of many traces ------------------------------------------------------

std::string putTrace(const base::TemporaryFolder& folder, const std::string& name,
                     const TraceBuilder& trace) {
  std::string path = folder.path() + "/" + name;
  std::ofstream(path, std::ios::binary) << trace.bytes();
  return path;
}

struct TwoTraces {
  TwoTraces() {
    later.record(later.place("work", MESSAGE_LOCK_WANTED, "sd"), kClient, 100 * kMs, {"tunerfw", 30});
    earlier.record(earlier.place("work", MESSAGE_CHECK_BEGINS, "ss"), kClient, 0, {"libtuner", "tunerfw"});
    earlier.record(earlier.place("work", MESSAGE_LOCK_WANTED, "sd"), kClient, 10 * kMs, {"tunerfw", 30});
  }

  TraceBuilder later;
  TraceBuilder earlier;
};

TEST(UpdatesOfTraces, ComeInTheOrderInWhichTheyBeganWithTheNamesThatAnyOfThemKnows) {
  const base::TemporaryFolder folder("/tmp/traces-");
  const TwoTraces traces;
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(putTrace(folder, "a", traces.later)));
  readings.emplace_back(openTrace(putTrace(folder, "b", traces.earlier)));

  const std::vector<Update> updates = updatesOf(readings);

  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_EQ(updates[0].file, &readings.back().file);
  EXPECT_EQ(updates[1].file, &readings.front().file);
  EXPECT_EQ(updates[1].module, "libtuner");
}

TEST(UpdatesOfTraces, AreTheSameInATimeline) {
  const TwoTraces traces;
  std::vector<TraceFile> files(2);
  files[0].trace = readTrace(traces.later.bytes()).trace;
  files[1].trace = readTrace(traces.earlier.bytes()).trace;

  const std::vector<Update> updates = timelineOf(files).updates;

  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_EQ(updates[0].file, &files[1]);
  EXPECT_EQ(updates[1].file, &files[0]);
  EXPECT_EQ(updates[1].module, "libtuner");
}

// ---- Exports --------------------------------------------------------------------

Json::Value parsed(const std::string& text) {
  Json::Value document;
  std::istringstream stream(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &document, &errors)) << errors;
  return document;
}

Story& wholeUpdate(Story& story) {
  return story.untilModule().say(kWorker, 145, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"}).requestEnds(150, 0);
}

// The Trace Event Format's rules for the events that are written.
TEST(PerfettoExport, KeepsToTheTraceEventFormat) {
  Story story;
  const Json::Value document = parsed(exportPerfetto(wholeUpdate(story).tell()));

  std::map<std::string, int> phases;
  for (const Json::Value& event : document["traceEvents"]) {
    const std::string phase = event["ph"].asString();
    ++phases[phase];
    EXPECT_TRUE(event["pid"].isIntegral());
    EXPECT_TRUE(event["tid"].isIntegral());
    EXPECT_TRUE(event["name"].isString());
    if (phase == "M") {
      EXPECT_TRUE(event["args"]["name"].isString());
      continue;
    }
    EXPECT_TRUE(event["ts"].isNumeric());
    EXPECT_GE(event["ts"].asDouble(), 0);
    EXPECT_TRUE(event["cat"].isString());
    if (phase == "X") {
      EXPECT_GE(event["dur"].asDouble(), 0);
    }
    if (phase == "i") {
      EXPECT_EQ(event["s"].asString(), "t");
    }
  }
  EXPECT_EQ(phases["X"], 5);  // the update and its four stages
  EXPECT_EQ(phases["i"], 6);  // a message each
  EXPECT_EQ(phases.size(), 3U);
}

TEST(PerfettoExport, NestsTheSlicesOfATrack) {
  Story story;
  const Json::Value document = parsed(exportPerfetto(wholeUpdate(story).tell()));

  std::map<int, std::vector<std::pair<double, double>>> tracks;
  for (const Json::Value& event : document["traceEvents"]) {
    if (event["ph"] == "X") {
      tracks[event["tid"].asInt()].emplace_back(event["ts"].asDouble(),
                                                event["ts"].asDouble() + event["dur"].asDouble());
    }
  }
  ASSERT_THAT(tracks, SizeIs(2));
  for (const auto& [thread, slices] : tracks) {
    for (const auto& a : slices) {
      for (const auto& b : slices) {
        const bool overlap = a.first < b.first && b.first < a.second && a.second < b.second;
        EXPECT_FALSE(overlap) << thread;
      }
    }
  }
}

TEST(JsonExport, HoldsUpdatesAndMessages) {
  Story story;
  const Json::Value document = parsed(exportJson(wholeUpdate(story).tell()));

  EXPECT_EQ(document["messages"].size(), 6U);
  ASSERT_EQ(document["updates"].size(), 1U);
  EXPECT_EQ(document["updates"][0]["module"].asString(), "libtuner");
  EXPECT_EQ(document["updates"][0]["stages"].size(), 4U);
  EXPECT_EQ(document["processes"][0]["commandLine"].asString(), "service --run");
}

TEST(HtmlExport, LetsNoMessageLeaveItsPlaceInThePage) {
  Story story;
  story.say(kClient, 0, "%s", {"</script><script>alert(1)</script>"});

  const std::string page = exportHtml(story.tell());

  EXPECT_EQ(page.find("alert(1)</script>"), std::string::npos);
  EXPECT_NE(page.find("\\u003c/script>"), std::string::npos);
}

TEST(HtmlExport, LoadsNothingFromElsewhere) {
  Story story;
  const std::string page = exportHtml(wholeUpdate(story).tell());

  for (const char* reference : {" src=", " href=", "@import", "fetch(\"", "@D3@", "@DATA@"}) {
    EXPECT_EQ(page.find(reference), std::string::npos) << reference;
  }
}

}  // namespace
