// SPDX-License-Identifier: Apache-2.0
#include "next-step.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "action-files.h"
#include "an-action.h"

namespace {

using fleet::Action;
using fleet::Cancel;
using fleet::Component;
using fleet::Confirmation;
using fleet::Consent;
using fleet::ConsentPolicy;
using fleet::Ending;
using fleet::JobEnd;
using fleet::mustArrive;
using fleet::nextStep;
using fleet::Stage;
using fleet::Step;
using fleet::ddi::Handling;
using fleet::ddi::Window;

Step stepOf(const Action& action, ConsentPolicy policy = ConsentPolicy::Never) {
  return nextStep(action, policy).step;
}

Action told(Stage stage) {
  Action action = anaction::action(stage);
  action.toldDownload = action.toldDownloaded = action.toldProceeding = true;
  return action;
}

TEST(FleetStep, GoesFromTheOfferToTheEnd) {
  Action action = anaction::action();

  EXPECT_EQ(stepOf(action), Step::TellDownload);
  action.toldDownload = true;
  EXPECT_EQ(stepOf(action), Step::Download);
  action.components[0].stage = Stage::Downloaded;
  EXPECT_EQ(nextStep(action, ConsentPolicy::Never).component, 1U);
  action.components[1].stage = Stage::Downloaded;
  EXPECT_EQ(stepOf(action), Step::Check);
  action.components[0].stage = action.components[1].stage = Stage::Checked;
  EXPECT_EQ(stepOf(action), Step::TellDownloaded);
  action.toldDownloaded = true;
  EXPECT_EQ(stepOf(action), Step::TellProceeding);
  action.toldProceeding = true;
  EXPECT_EQ(stepOf(action), Step::AskInstall);
  action.components[0].stage = Stage::Asked;
  EXPECT_EQ(stepOf(action), Step::FollowInstall);
  action.components[0].stage = Stage::Installed;
  EXPECT_EQ(stepOf(action), Step::AskInstall);
  EXPECT_EQ(nextStep(action, ConsentPolicy::Never).component, 1U);
  action.components[1].stage = Stage::Installed;
  EXPECT_EQ(stepOf(action), Step::Conclude);
  action.ending = Ending::Success;
  EXPECT_EQ(stepOf(action), Step::SendEnd);
  action.isReported = true;
  EXPECT_EQ(stepOf(action), Step::Rest);
}

TEST(FleetStep, ChecksEverythingBeforeAnythingIsInstalled) {
  Action action = told(Stage::Checked);
  action.components[1].stage = Stage::Wanted;
  EXPECT_EQ(stepOf(action), Step::Download);

  action.components[1].stage = Stage::Downloaded;
  EXPECT_EQ(stepOf(action), Step::Check);
}

TEST(FleetStep, WaitsWhereTheServerSaysNotNow) {
  Action action = told(Stage::Wanted);
  action.download = Handling::Skip;
  EXPECT_EQ(stepOf(action), Step::Wait);

  action = told(Stage::Checked);
  action.update = Handling::Skip;
  EXPECT_EQ(stepOf(action), Step::Wait);

  action = told(Stage::Checked);
  action.window = Window::Unavailable;
  EXPECT_EQ(stepOf(action), Step::Wait);
  action.window = Window::Available;
  EXPECT_EQ(stepOf(action), Step::AskInstall);
}

TEST(FleetStep, FollowsWhatIsAtWorkWhateverTheServerSaysByNow) {
  Action action = told(Stage::Checked);
  action.components[1].stage = Stage::Asked;
  action.window = Window::Unavailable;
  action.download = Handling::Skip;
  action.components[0].stage = Stage::Failed;

  EXPECT_EQ(stepOf(action), Step::FollowInstall);
  EXPECT_EQ(nextStep(action, ConsentPolicy::Never).component, 1U);
}

TEST(FleetStep, EndsWithTheFirstFailure) {
  Action action = told(Stage::Wanted);
  action.components[1].stage = Stage::Failed;
  EXPECT_EQ(stepOf(action), Step::Conclude);

  action = told(Stage::Wanted);
  action.problem = "No.";
  EXPECT_EQ(stepOf(action), Step::Conclude);
}

TEST(FleetStep, AsksTheOwnerOnlyWhereTheServerAndTheSetLeaveItToHim) {
  const struct {
    Handling handling;
    ConsentPolicy policy;
    Consent consent;
    Step atDownload;
    Step atUpdate;
  } rows[] = {
      {Handling::Forced, ConsentPolicy::Download, Consent::None, Step::Download, Step::AskInstall},
      {Handling::Attempt, ConsentPolicy::Never, Consent::None, Step::Download, Step::AskInstall},
      {Handling::Attempt, ConsentPolicy::Update, Consent::None, Step::Download, Step::AskConsent},
      {Handling::Attempt, ConsentPolicy::Update, Consent::Given, Step::Download, Step::AskInstall},
      {Handling::Attempt, ConsentPolicy::Update, Consent::Declined, Step::Download, Step::Conclude},
      {Handling::Attempt, ConsentPolicy::Download, Consent::None, Step::AskConsent, Step::AskConsent},
      {Handling::Attempt, ConsentPolicy::Download, Consent::Given, Step::Download, Step::AskInstall},
      {Handling::Attempt, ConsentPolicy::Download, Consent::Declined, Step::Conclude, Step::Conclude},
      {Handling::Forced, ConsentPolicy::Download, Consent::Declined, Step::Download, Step::AskInstall},
  };
  for (const auto& row : rows) {
    for (const Stage stage : {Stage::Wanted, Stage::Checked}) {
      Action action = told(stage);
      action.download = action.update = row.handling;
      action.consent = row.consent;
      EXPECT_EQ(stepOf(action, row.policy), stage == Stage::Wanted ? row.atDownload : row.atUpdate)
          << &row - rows;
    }
  }
}

TEST(FleetStep, DoesNothingBeforeAConfirmationThatTheServerWants) {
  Action action = anaction::action();
  action.confirmation = Confirmation::Wanted;
  EXPECT_EQ(stepOf(action), Step::AskConfirmation);
  for (const Confirmation decided : {Confirmation::Confirming, Confirmation::Denying}) {
    action.confirmation = decided;
    EXPECT_EQ(stepOf(action), Step::SendConfirmation);
  }
  action.confirmation = Confirmation::Answered;
  EXPECT_EQ(stepOf(action), Step::Wait);
}

TEST(FleetStep, AnswersACancellationBeforeAnythingElse) {
  for (const Cancel decided : {Cancel::Accepting, Cancel::Refusing}) {
    Action action = told(Stage::Asked);
    action.cancel = decided;
    action.ending = Ending::Failure;
    action.confirmation = Confirmation::Wanted;
    EXPECT_EQ(stepOf(action), Step::SendCancelAnswer);
  }
}

TEST(FleetStep, TellsAnEndUntilTheServerHasIt) {
  Action action = told(Stage::Checked);
  for (const Step step : {Step::SendEnd, Step::SendCancelAnswer, Step::SendConfirmation}) {
    EXPECT_TRUE(mustArrive(action, step));
  }
  for (const Step step : {Step::TellDownload, Step::TellDownloaded, Step::TellProceeding}) {
    EXPECT_FALSE(mustArrive(action, step));
  }
}

TEST(FleetStep, TellsThatItIsDownloadedUntilTheServerHasItWhenThatIsTheEnd) {
  Action action = told(Stage::Checked);
  action.update = Handling::Skip;
  EXPECT_TRUE(mustArrive(action, Step::TellDownloaded));

  action.window = Window::Unavailable;
  EXPECT_FALSE(mustArrive(action, Step::TellDownloaded));
}

// A server, a set and a program that is killed anywhere, with the file that outlives it.
class World {
 public:
  explicit World(unsigned int seed) : dice_(seed) {
    Action action = anaction::action();
    action.window = chance(3) ? Window::Unavailable : Window::None;
    action.confirmation = chance(3) ? Confirmation::Wanted : Confirmation::None;
    kept_ = action;
    for (const Component& component : action.components) {
      versions_[component.name] = chance(5) ? "2.0" : "1.0";
    }
    before_ = versions_;
  }

  void live() {
    for (int starts = 0; starts < 60 && !isOver_; ++starts) {
      mayBeKilled_ = starts < 50;
      try {
        run();
      } catch (const Killed&) {
      }
    }
  }

  void expectTheTruth() const {
    ASSERT_TRUE(isOver_);
    EXPECT_EQ(ends_.size() + (isCanceled_ ? 1 : 0), 1U);
    const bool areAllNew =
        std::all_of(versions_.begin(), versions_.end(), [](const auto& one) { return one.second == "2.0"; });
    if (!ends_.empty() && ends_[0] == Ending::Success) {
      EXPECT_TRUE(areAllNew);
    }
    if (isCanceled_) {
      EXPECT_EQ(versions_, before_);
    }
    for (const auto& [step, times] : told_) {
      EXPECT_LE(times, 1) << static_cast<int>(step);
    }
    EXPECT_FALSE(wasEarly_);
  }

  const std::vector<Ending>& ends() const { return ends_; }
  bool isCanceled() const { return isCanceled_; }

 private:
  struct Killed {};

  bool chance(unsigned int of) { return dice_() % of == 0; }
  void mayDie() {
    if (mayBeKilled_ && chance(12)) {
      throw Killed();
    }
  }

  void keep(const Action& action) {
    mayDie();
    kept_ = action;
    mayDie();
  }

  void poll(Action& action) {
    if (isCanceled_ || !ends_.empty()) {
      return;
    }
    if (!isCancelWanted_ && !isCancelRefused_ && chance(12)) {
      isCancelWanted_ = true;
    }
    if (isCancelWanted_) {
      fleet::wantCancel(action);
    } else if (action.confirmation == Confirmation::None || isConfirmed_) {
      auto offered = anaction::deployment();
      offered.window = chance(3) ? Window::Unavailable : Window::Available;
      fleet::offer(action, offered);
    }
    keep(action);
  }

  void run() {
    Action action = std::get<Action>(fleet::parseAction(textOf(kept_)));  // as its file gives it
    for (int steps = 0; steps < 200; ++steps) {
      if (chance(4)) {
        poll(action);
      }
      const auto next = nextStep(action, ConsentPolicy::Never);
      if (next.step == Step::Rest) {
        isOver_ = !ends_.empty() || isCanceled_;
        return;
      }
      perform(action, next);
    }
  }

  void perform(Action& action, const fleet::NextStep& next) {
    Component& component = action.components[next.component];
    switch (next.step) {
      case Step::AskConfirmation:
        fleet::confirm(action, true);
        break;
      case Step::SendConfirmation:
        isConfirmed_ = true;
        mayDie();
        action.confirmation = Confirmation::Answered;
        break;
      case Step::TellDownload:
        tell(action, &Action::toldDownload, next.step);
        break;
      case Step::TellDownloaded:
        tell(action, &Action::toldDownloaded, next.step);
        break;
      case Step::TellProceeding:
        tell(action, &Action::toldProceeding, next.step);
        break;
      case Step::Download:
        wasEarly_ = wasEarly_ || action.confirmation != Confirmation::None;
        if (chance(30)) {
          fleet::fail(component, "It is not there.", "");
        } else {
          component.stage = Stage::Downloaded;
        }
        break;
      case Step::Check:
        component.stage = Stage::Checked;
        break;
      case Step::AskInstall:
        fleet::ask(component, 0, versions_[component.name]);
        keep(action);
        if (component.stage == Stage::Asked) {
          install(component.name);
        }
        break;
      case Step::FollowInstall:
        follow(component);
        break;
      case Step::Conclude:
        fleet::conclude(action);
        break;
      case Step::SendEnd:
        sendEnd(action);
        break;
      case Step::SendCancelAnswer:
        sendCancelAnswer(action);
        break;
      default:
        poll(action);
    }
    keep(action);
  }

  void tell(Action& action, bool Action::*place, Step step) {
    action.*place = true;
    keep(action);
    ++told_[step];
  }

  // The job is done by others, who are not killed with the program.
  void install(const std::string& name) {
    mayDie();
    job_ = chance(4) ? JobEnd::Failed : chance(4) ? JobEnd::Unknown : JobEnd::Updated;
    if (job_ != JobEnd::Failed && (job_ == JobEnd::Updated || chance(2))) {
      versions_[name] = chance(9) ? "1.9" : "2.0";
    }
    isJobKnown_ = job_ != JobEnd::Unknown;
    mayDie();
  }

  void follow(Component& component) {
    const JobEnd end = isJobKnown_ ? job_ : JobEnd::Unknown;
    isJobKnown_ = false;
    fleet::settle(component, end, versions_[component.name], "It failed.", "");
  }

  // After the first end the server takes no other.
  void sendEnd(Action& action) {
    if (ends_.empty() && !isCanceled_) {
      ends_.push_back(action.ending);
    }
    mayDie();
    action.isReported = true;
  }

  void sendCancelAnswer(Action& action) {
    if (isCancelWanted_ && ends_.empty()) {
      isCanceled_ = action.cancel == Cancel::Accepting;
      isCancelRefused_ = !isCanceled_;
      isCancelWanted_ = false;
    }
    mayDie();
    fleet::cancelAnswered(action);
  }

  std::mt19937 dice_;
  Action kept_;
  std::map<std::string, std::string> versions_, before_;
  std::map<Step, int> told_;
  std::vector<Ending> ends_;
  JobEnd job_ = JobEnd::Unknown;
  bool isJobKnown_ = false, mayBeKilled_ = true, isOver_ = false, wasEarly_ = false;
  bool isCancelWanted_ = false, isCancelRefused_ = false, isCanceled_ = false, isConfirmed_ = false;
};

TEST(FleetStep, ClosesAnActionOnceAndWithTheTruthWhereverItIsKilled) {
  int successes = 0, failures = 0, canceled = 0;
  for (unsigned int seed = 0; seed < 500 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    World world(seed);

    world.live();

    world.expectTheTruth();
    canceled += world.isCanceled() ? 1 : 0;
    successes += !world.ends().empty() && world.ends()[0] == Ending::Success ? 1 : 0;
    failures += !world.ends().empty() && world.ends()[0] == Ending::Failure ? 1 : 0;
  }
  // All of it came about.
  EXPECT_GT(successes, 20);
  EXPECT_GT(failures, 20);
  EXPECT_GT(canceled, 20);
}

}  // namespace
