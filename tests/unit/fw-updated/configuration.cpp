// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using updated::parseConfiguration;
using updated::Policy;

std::vector<std::string> problemsOf(const std::string& content) {
  std::vector<std::string> texts;
  for (const auto& problem : parseConfiguration(content).problems) {
    texts.push_back(textOf(problem, "f"));
  }
  return texts;
}

TEST(ServiceConfiguration, DoesNothingUnaskedWithoutAFile) {
  const auto read = updated::readConfiguration("/nonexistent/fw-updated.conf");

  EXPECT_THAT(read.problems, IsEmpty());
  const updated::Configuration& configuration = read.configuration;
  EXPECT_TRUE(configuration.atStart);
  EXPECT_FALSE(configuration.beforeStandby || configuration.beforeShutdown || configuration.usbDrive ||
               configuration.window.has_value());
  EXPECT_EQ(configuration.policyFor("security"), Policy::Leave);
  EXPECT_EQ(configuration.policyFor("feature"), Policy::Leave);
}

TEST(ServiceConfiguration, TakesEverySetting) {
  const auto read = parseConfiguration(
      "# when\nat-start = yes\nbefore-standby=yes\r\n before-shutdown = yes # at the end of the day\n"
      "usb-drive = yes\nwindow = 02:00-05:30\nsecurity = do\nfeature = ask\n");

  EXPECT_THAT(read.problems, IsEmpty());
  const updated::Configuration& configuration = read.configuration;
  EXPECT_TRUE(configuration.atStart && configuration.beforeStandby && configuration.beforeShutdown &&
              configuration.usbDrive);
  ASSERT_TRUE(configuration.window.has_value());
  EXPECT_EQ(configuration.window->begin, 120);
  EXPECT_EQ(configuration.window->end, 330);
  EXPECT_EQ(configuration.policyFor("security"), Policy::Do);
  EXPECT_EQ(configuration.policyFor("feature"), Policy::Ask);
}

TEST(ServiceConfiguration, TakesOneSwitchForOneOccasionAlone) {
  const struct {
    const char* name;
    bool updated::Configuration::*place;
  } switches[] = {{"at-start", &updated::Configuration::atStart},
                  {"before-standby", &updated::Configuration::beforeStandby},
                  {"before-shutdown", &updated::Configuration::beforeShutdown},
                  {"usb-drive", &updated::Configuration::usbDrive}};
  for (const auto& one : switches) {
    const std::string start = one.place == &updated::Configuration::atStart ? "" : "at-start = no\n";
    const auto configuration = parseConfiguration(start + one.name + " = yes").configuration;

    for (const auto& other : switches) {
      EXPECT_EQ(configuration.*other.place, other.place == one.place) << one.name << ": " << other.name;
    }
  }
}

TEST(ServiceConfiguration, TakesAnUnknownClassForAFeature) {
  const auto configuration = parseConfiguration("security = do\nfeature = ask").configuration;

  EXPECT_EQ(configuration.policyFor("urgent"), Policy::Ask);
  EXPECT_EQ(configuration.policyFor(""), Policy::Ask);
}

TEST(ServiceConfiguration, NamesEveryWrongEntryByItsLine) {
  EXPECT_THAT(
      problemsOf("at-start = maybe\n\n# fine\nusb-drive\nwindow = 5-6\nsecurity = always\ncolour = red\n"),
      ElementsAre("f, line 1: at-start must be yes or no.", "f, line 4: it has no \"=\".",
                  "f, line 5: window must be two times of the day, such as 02:00-05:00.",
                  "f, line 6: security must be do, ask or leave.", "f, line 7: there is no setting colour."));
}

TEST(ServiceConfiguration, RefusesWhatIsNoTimeOfTheDay) {
  for (const char* value : {"02:00", "2:00-5:00", "24:00-05:00", "02:60-05:00", "02:00-05:00-06:00",
                            "02-00-05-00", "", "-", "02:00-05:0x", "a2:00-05:00"}) {
    EXPECT_THAT(problemsOf(std::string("window = ") + value), SizeIs(1)) << value;
  }
  EXPECT_THAT(problemsOf("window = 02:00-02:00"),
              ElementsAre("f, line 1: window must end at another time than it begins."));
  EXPECT_THAT(problemsOf("window = 00:00-23:59"), IsEmpty());
}

TEST(ServiceConfiguration, LetsAWrongLineCountForNothing) {
  const auto read = parseConfiguration("feature = sometimes\nsecurity = do\nat-start = perhaps\n");

  EXPECT_EQ(read.configuration.feature, Policy::Leave);
  EXPECT_EQ(read.configuration.security, Policy::Do);
  EXPECT_TRUE(read.configuration.atStart);
}

TEST(ServiceConfiguration, LetsTheFirstOfTwoCountAndNamesTheSecond) {
  const auto read = parseConfiguration("security = ask\n\nsecurity = do\n");

  EXPECT_EQ(read.configuration.security, Policy::Ask);
  ASSERT_THAT(read.problems, SizeIs(1));
  EXPECT_EQ(textOf(read.problems[0], "f"), "f, line 3: security stands in line 1 already.");
}

TEST(ServiceConfiguration, ShowsNothingOfALineThatATerminalWouldObey) {
  EXPECT_THAT(problemsOf("\x1b[2J = 1"), ElementsAre("f, line 1: there is no setting \\x1B[2J."));
}

TEST(ServiceConfiguration, SaysThatAFileCannotBeRead) {
  const auto read = updated::readConfiguration("/proc");

  ASSERT_THAT(read.problems, SizeIs(1));
  EXPECT_THAT(textOf(read.problems[0], "/proc"), HasSubstr("/proc: it cannot be read: "));
}

TEST(ServiceWindow, HoldsItsBeginningAndNotItsEnd) {
  const updated::Window window{120, 300};

  EXPECT_FALSE(window.contains(119));
  EXPECT_TRUE(window.contains(120));
  EXPECT_TRUE(window.contains(299));
  EXPECT_FALSE(window.contains(300));
}

TEST(ServiceWindow, GoesOverMidnight) {
  const updated::Window window{1380, 60};

  EXPECT_TRUE(window.contains(1380));
  EXPECT_TRUE(window.contains(0));
  EXPECT_TRUE(window.contains(59));
  EXPECT_FALSE(window.contains(60));
  EXPECT_FALSE(window.contains(1379));
}

}  // namespace
