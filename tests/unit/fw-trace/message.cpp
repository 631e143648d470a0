// SPDX-License-Identifier: Apache-2.0
#include "message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "trace-builder.h"

namespace {

using ::testing::ElementsAre;

std::string textOf(const std::string& format, const std::string& types,
                   const std::vector<Argument>& arguments) {
  TraceBuilder builder;
  builder.record(builder.place("work", format, types), 1, 1, arguments);
  auto result = tracetool::readTrace(builder.bytes());
  const auto messages = tracetool::messagesOf(result.trace);
  return messages.size() == 1 && result.trace.skipped.empty() ? messages[0].text : "(not read)";
}

TEST(TraceMessage, ShowsArgumentsAsTheLogDoes) {
  EXPECT_EQ(textOf("no argument", "", {}), "no argument");
  EXPECT_EQ(textOf("%s update time %d ms", "sd", {"tunerfw", 30}), "tunerfw update time 30 ms");
  EXPECT_EQ(textOf("[%d]", "d", {-1}), "[-1]");
  EXPECT_EQ(textOf("[%u]", "d", {-1}), "[4294967295]");
  EXPECT_EQ(textOf("[%08X]", "d", {0xBEEF}), "[0000BEEF]");
  EXPECT_EQ(textOf("[%-6s|%.2s]", "ss", {"abc", "abc"}), "[abc   |ab]");
  EXPECT_EQ(textOf("100%% of %s", "s", {"it"}), "100% of it");
  EXPECT_EQ(textOf("lstat error\n", "", {}), "lstat error\n");
}

TEST(TraceMessage, ShowsANullTextAsTheLogDoes) {
  EXPECT_EQ(textOf("(%s)", "s", {nullptr}), "((null))");
}

TEST(TraceMessage, ShowsTextsOfEveryLength) {
  for (const std::size_t length : {0U, 1U, 127U, 128U, 16382U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(textOf("%s|%d", "sd", {text, 7}), text + "|7") << length;
  }
}

TEST(TraceMessage, MakesAnErrorTextOfTheNumberBeforeIt) {
  EXPECT_EQ(textOf("Fail %d (%d:%m)", "dd", {5, 2}), "Fail 5 (2:No such file or directory)");
  EXPECT_EQ(textOf("%s: %m", "s", {"x"}), "x: <error text not kept>");
  EXPECT_EQ(textOf("Fail %d %m", "d", {2}), "Fail 2 <error text not kept>");
  EXPECT_EQ(textOf("%d:%m", "s", {"x"}), "x:<error text not kept>");
  EXPECT_EQ(textOf("%m", "", {}), "<error text not kept>");
}

TEST(TraceMessage, LetsNoFormatOfADamagedFileDoHarm) {
  EXPECT_EQ(textOf("%999999999d", "d", {1}), "1");
  EXPECT_EQ(textOf("%n", "d", {1}), "1");
  EXPECT_EQ(textOf("%s", "d", {1}), "1");
  EXPECT_EQ(textOf("%d", "s", {"text"}), "text");
  EXPECT_EQ(textOf("%d", "", {}), "<missing>");
  EXPECT_EQ(textOf("at the end %", "", {}), "at the end %");
}

TEST(TraceMessage, TakesWidthsAndFlagsThatAMessageMayNeed) {
  EXPECT_EQ(textOf("%999d", "d", {1}), std::string(998, ' ') + "1");
  EXPECT_EQ(textOf("%1000d", "d", {1}), "1");
  EXPECT_EQ(textOf("%" + std::string(15, ' ') + "d", "d", {1}), " 1");
  EXPECT_EQ(textOf("%" + std::string(16, ' ') + "d", "d", {1}), "1");
}

// A hundred messages of a place with a long format.
tracetool::Trace longMessages() {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", std::string(1000, '.') + "%s", "s");
  for (int i = 0; i < 100; ++i) {
    builder.record(place, 1, i, {std::string(500, 'x')});
  }
  return tracetool::readTrace(builder.bytes()).trace;
}

TEST(TraceMessage, TakesNoMoreThanThereIsRoomFor) {
  auto trace = longMessages();
  tracetool::MessageRoom room{1000, 10 * 3600};  // format, text and argument of each

  const auto messages = tracetool::messagesOf(trace, room);

  EXPECT_GE(messages.size(), 10U);
  EXPECT_LE(messages.size(), 12U);
  EXPECT_EQ(room.bytes, 0U);
  EXPECT_THAT(trace.skipped, ElementsAre(::testing::HasSubstr(std::to_string(100 - messages.size()) +
                                                              " messages are more than fit into memory")));
}

TEST(TraceMessage, TakesNoMoreThanTheirNumber) {
  auto trace = longMessages();
  tracetool::MessageRoom room{7, std::size_t{1} << 30};

  EXPECT_EQ(tracetool::messagesOf(trace, room).size(), 7U);
  EXPECT_EQ(room.messages, 0U);
  EXPECT_THAT(trace.skipped, ElementsAre(::testing::StartsWith("93 messages are more than fit")));
}

TEST(TraceMessage, KnowsTheLastNameOfEachThread) {
  TraceBuilder builder;
  builder.rawRecord(0, 5, 1, fwplatform::trace::ThreadBegins, "service");
  builder.rawRecord(0, 5, 2, fwplatform::trace::ThreadEnds, "tunerfw");

  const auto names = tracetool::threadNames(tracetool::readTrace(builder.bytes()).trace);

  EXPECT_THAT(names, ElementsAre(std::make_pair(5U, std::string("tunerfw"))));
}

}  // namespace
