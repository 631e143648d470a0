// SPDX-License-Identifier: Apache-2.0
#include "action-files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <system_error>

#include "an-action.h"

namespace {

using fleet::Action;
using fleet::ActionFiles;
using fleet::fileNameOf;
using fleet::parseAction;
using fleet::Unusable;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

Action everythingSet() {
  Action action = anaction::action(fleet::Stage::Asked);
  action.number = 9;
  action.download = fleet::ddi::Handling::Attempt;
  action.update = fleet::ddi::Handling::Skip;
  action.window = fleet::ddi::Window::Available;
  action.problem = "No \"room\".";
  action.consent = fleet::Consent::Declined;
  action.confirmation = fleet::Confirmation::Denying;
  action.cancel = fleet::Cancel::Refusing;
  action.ending = fleet::Ending::Gone;
  action.toldDownload = action.toldDownloaded = action.toldProceeding = action.isReported = true;
  action.components[0].attempts = 2;
  action.components[0].versionBefore = "1.0";
  action.components[0].jobBefore = 7;
  action.components[0].sentence = "It failed.";
  action.components[0].remedy = "Try again.";
  action.components[1].artifacts[0].size.reset();
  return action;
}

class FleetActionFiles : public ::testing::Test {
 protected:
  FleetActionFiles() {
    char name[] = "/tmp/fleet-actions-XXXXXX";
    directory_ = mkdtemp(name);
    files_.emplace(directory_ + "/actions");
  }
  ~FleetActionFiles() override { std::filesystem::remove_all(directory_); }

  std::string path(const std::string& name) const { return directory_ + "/actions/" + name; }
  void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }

  std::string directory_;
  std::optional<ActionFiles> files_;
};

TEST(FleetActionText, KeepsEverything) {
  const Action action = everythingSet();

  const auto read = parseAction(textOf(action));

  ASSERT_TRUE(std::holds_alternative<Action>(read));
  const Action& again = std::get<Action>(read);
  EXPECT_EQ(textOf(again), textOf(action));
  EXPECT_EQ(again.id, "12");
  EXPECT_EQ(again.ending, fleet::Ending::Gone);
  EXPECT_EQ(again.cancel, fleet::Cancel::Refusing);
  EXPECT_EQ(again.confirmation, fleet::Confirmation::Denying);
  EXPECT_EQ(again.consent, fleet::Consent::Declined);
  EXPECT_EQ(again.window, fleet::ddi::Window::Available);
  EXPECT_EQ(again.download, fleet::ddi::Handling::Attempt);
  EXPECT_TRUE(again.toldDownload && again.toldDownloaded && again.toldProceeding && again.isReported);
  EXPECT_EQ(again.components.at(0).stage, fleet::Stage::Asked);
  EXPECT_EQ(again.components.at(0).versionBefore, "1.0");
  EXPECT_EQ(again.components.at(0).jobBefore, 7U);
  EXPECT_EQ(again.components.at(0).artifacts.at(0).size, 4096);
  EXPECT_FALSE(again.components.at(1).artifacts.at(0).size.has_value());
}

TEST(FleetActionText, TellsEachTruthFromTheOthers) {
  Action action = anaction::action();
  action.toldDownloaded = true;

  const Action again = std::get<Action>(parseAction(textOf(action)));

  EXPECT_TRUE(again.toldDownloaded);
  EXPECT_FALSE(again.toldDownload || again.toldProceeding || again.isReported);
}

TEST(FleetActionText, IsRefusedWhenAnythingIsMissingOrOfAnotherKind) {
  const std::string good = textOf(everythingSet());
  for (const char* name : {"\"format\"",
                           "\"id\"",
                           "\"number\"",
                           "\"download\"",
                           "\"update\"",
                           "\"window\"",
                           "\"problem\"",
                           "\"consent\"",
                           "\"confirmation\"",
                           "\"cancel\"",
                           "\"ending\"",
                           "\"reported\"",
                           "\"toldDownload\"",
                           "\"toldDownloaded\"",
                           "\"toldProceeding\"",
                           "\"components\"",
                           "\"stage\"",
                           "\"attempts\"",
                           "\"versionBefore\"",
                           "\"jobBefore\"",
                           "\"sentence\"",
                           "\"remedy\"",
                           "\"artifacts\"",
                           "\"size\"",
                           "\"sha256\"",
                           "\"address\"",
                           "\"fileName\"",
                           "\"asked\"",
                           "\"gone\"",
                           "\"denying\"",
                           "true",
                           "4096",
                           "9"}) {
    std::string text = good;
    text.replace(text.find(name), std::string(name).size(), name[0] == '"' ? "\"other\"" : "\"x\"");

    const auto read = parseAction(text);

    ASSERT_TRUE(std::holds_alternative<Unusable>(read)) << name;
    EXPECT_EQ(std::get<Unusable>(read), Unusable::Damaged) << name;
  }
}

TEST(FleetActionText, IsRefusedWhereverItIsCutOff) {
  const std::string good = textOf(everythingSet());
  for (std::size_t size = 0; size + 2 < good.size(); size += 7) {
    EXPECT_TRUE(std::holds_alternative<Unusable>(parseAction(good.substr(0, size)))) << size;
  }
}

TEST(FleetActionText, OfANewerProgramIsLeftAlone) {
  EXPECT_EQ(std::get<Unusable>(parseAction(R"({"format":2,"all":"else"})")), Unusable::Newer);
}

TEST(FleetActionFile, HasANameThatLeadsNowhere) {
  EXPECT_EQ(fileNameOf("12"), "12.action");
  EXPECT_EQ(fileNameOf("aZ-_09"), "aZ-_09.action");
  EXPECT_EQ(fileNameOf("../x"), "%2E%2E%2Fx.action");
  EXPECT_EQ(fileNameOf("%2E"), "%252E.action");
  EXPECT_EQ(fileNameOf("\xFF"), "%FF.action");
  EXPECT_LE(fileNameOf(std::string(64, '.')).size() + sizeof ".damaged", 255U);
}

TEST_F(FleetActionFiles, LeaveNoDirectoryOpen) {
  namespace fs = std::filesystem;
  const auto count = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  files_->load();
  const auto before = count();

  files_->load();

  EXPECT_EQ(count(), before);
}

TEST_F(FleetActionFiles, AreForThisUserAlone) {
  struct stat status = {};

  ASSERT_EQ(stat(path("").c_str(), &status), 0);

  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  EXPECT_NO_THROW(ActionFiles(directory_ + "/actions"));
  EXPECT_THROW(ActionFiles(directory_ + "/none/actions"), std::system_error);
}

TEST_F(FleetActionFiles, GiveTheActionsInTheOrderTheyCame) {
  Action first = anaction::action(), second = anaction::action();
  first.id = "99";
  second.id = "5";
  second.number = 2;
  ASSERT_EQ(files_->keep(second), 0);
  ASSERT_EQ(files_->keep(first), 0);

  const auto kept = files_->load();

  ASSERT_THAT(kept.actions, SizeIs(2));
  EXPECT_EQ(kept.actions[0].id, "99");
  EXPECT_EQ(kept.actions[1].id, "5");
}

TEST_F(FleetActionFiles, HaveOneFileForAnAction) {
  Action action = anaction::action();
  ASSERT_EQ(files_->keep(action), 0);
  action.isReported = true;
  ASSERT_EQ(files_->keep(action), 0);

  const auto kept = files_->load();

  ASSERT_THAT(kept.actions, SizeIs(1));
  EXPECT_TRUE(kept.actions[0].isReported);
}

TEST_F(FleetActionFiles, SetAsideWhatIsDamagedAndLeaveWhatIsNewer) {
  write("1.action", "{");
  write("2.action", R"({"format":2})");
  write("3.action", textOf(anaction::action()));  // the file of another action
  write("4.action.new", "unfinished");

  const auto kept = files_->load();

  EXPECT_THAT(kept.actions, IsEmpty());
  EXPECT_THAT(kept.newer, ElementsAre(path("2.action")));
  EXPECT_THAT(kept.setAside, ElementsAre(path("1.action.damaged"), path("3.action.damaged")));
  EXPECT_TRUE(std::filesystem::exists(path("2.action")));
  EXPECT_FALSE(std::filesystem::exists(path("1.action")));
  EXPECT_TRUE(std::filesystem::exists(path("1.action.damaged")));
}

// Earlier programs kept all of it.
TEST_F(FleetActionFiles, LeaveOutOfWhatIsOverWhatNobodyComparesAnyMore) {
  Action closed = anaction::action(fleet::Stage::Installed);
  closed.ending = fleet::Ending::Success;
  closed.isReported = true;
  write("12.action", textOf(closed));

  const auto kept = files_->load();

  ASSERT_THAT(kept.actions, SizeIs(1));
  EXPECT_THAT(kept.actions[0].components.at(0).artifacts, IsEmpty());
  EXPECT_TRUE(hasCarriedOut(kept.actions[0], anaction::deployment()));
  std::ifstream file(path("12.action"));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_THAT(text, ::testing::Not(::testing::HasSubstr("https://s/a")));
  EXPECT_EQ(text, textOf(kept.actions[0]));
}

TEST_F(FleetActionFiles, LeaveWhatIsNotToldYetAsItIs) {
  Action closed = anaction::action(fleet::Stage::Installed);
  closed.ending = fleet::Ending::Success;
  write("12.action", textOf(closed));

  const auto kept = files_->load();

  ASSERT_THAT(kept.actions, SizeIs(1));
  EXPECT_THAT(kept.actions[0].components.at(0).artifacts, SizeIs(1));
}

TEST_F(FleetActionFiles, SayWhyNothingCanBeKept) {
  std::filesystem::remove_all(directory_);

  EXPECT_EQ(files_->keep(anaction::action()), ENOENT);
  EXPECT_THROW(files_->load(), std::system_error);
}

TEST_F(FleetActionFiles, KeepTheNewestOfThoseThatAreOver) {
  std::vector<Action> actions;
  for (std::uint64_t number = 1; number <= 6; ++number) {
    Action action = anaction::action();
    action.id = std::to_string(number);
    action.number = number;
    action.ending = number == 1 ? fleet::Ending::None : fleet::Ending::Success;
    action.isReported = number != 2;
    ASSERT_EQ(files_->keep(action), 0);
    actions.push_back(action);
  }

  files_->prune(actions, 2);

  std::vector<std::string> left;
  for (const Action& action : files_->load().actions) {
    left.push_back(action.id);
  }
  EXPECT_THAT(left, ElementsAre("1", "2", "5", "6"));
}

}  // namespace
