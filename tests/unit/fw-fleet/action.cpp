// SPDX-License-Identifier: Apache-2.0
#include "action.h"

#include <gmock/gmock.h>

#include "an-action.h"

namespace {

using anaction::action;
using anaction::deployment;
using fleet::Action;
using fleet::Cancel;
using fleet::Component;
using fleet::Confirmation;
using fleet::Consent;
using fleet::Ending;
using fleet::JobEnd;
using fleet::Stage;
using fleet::ddi::Handling;
using fleet::ddi::Window;
using ::testing::ElementsAre;
using ::testing::SizeIs;

Component asked(int attempts = 1) {
  Component component;
  component.name = "tunerfw";
  component.version = "2.0";
  component.versionBefore = "1.0";
  component.stage = Stage::Asked;
  component.attempts = attempts;
  return component;
}

TEST(FleetAction, IsWhatWasOffered) {
  auto offered = deployment();
  offered.download = Handling::Attempt;
  offered.window = Window::Unavailable;
  offered.problem = "No.";

  const Action made = fleet::actionOf(offered, 7);

  EXPECT_EQ(made.id, "12");
  EXPECT_EQ(made.number, 7U);
  EXPECT_EQ(made.download, Handling::Attempt);
  EXPECT_EQ(made.update, Handling::Forced);
  EXPECT_EQ(made.window, Window::Unavailable);
  EXPECT_EQ(made.problem, "No.");
  ASSERT_THAT(made.components, SizeIs(2));
  EXPECT_EQ(made.components[1].name, "panelfw");
  EXPECT_EQ(made.components[1].stage, Stage::Wanted);
  EXPECT_EQ(made.components[1].artifacts.at(0).address, "https://s/a");
  EXPECT_EQ(made.confirmation, Confirmation::None);
  EXPECT_EQ(fleet::actionToConfirm(offered, 7).confirmation, Confirmation::Wanted);
}

TEST(FleetAction, GoesOnUnderTheServersNewWords) {
  Action offered = action(Stage::Downloaded);
  offered.confirmation = Confirmation::Answered;
  auto again = deployment();
  again.update = Handling::Skip;
  again.window = Window::Available;
  again.chunks[0].artifacts[0].address = "https://s/b";

  fleet::offer(offered, again);

  EXPECT_EQ(offered.update, Handling::Skip);
  EXPECT_EQ(offered.window, Window::Available);
  EXPECT_EQ(offered.confirmation, Confirmation::None);
  EXPECT_EQ(offered.components[0].stage, Stage::Downloaded);
  EXPECT_EQ(offered.components[0].artifacts[0].address, "https://s/b");
}

TEST(FleetAction, IsAnsweredAndNotDoneAgainWhenItIsOfferedAfterItsEnd) {
  for (const Ending ending : {Ending::Success, Ending::Failure}) {
    Action closed = action(Stage::Installed);
    closed.ending = ending;
    closed.isReported = true;

    fleet::offer(closed, deployment());

    EXPECT_EQ(closed.ending, ending);
    EXPECT_FALSE(closed.isReported);
    EXPECT_EQ(closed.components[0].stage, Stage::Installed);
  }
}

TEST(FleetAction, BeginsAgainWhenTheServerWantsItAfterAll) {
  for (const Ending ending : {Ending::Canceled, Ending::Gone}) {
    Action closed = action(Stage::Asked);
    closed.components[0].stage = Stage::Failed;
    closed.components[0].sentence = "It failed.";
    closed.ending = ending;
    closed.isReported = closed.toldDownload = true;

    fleet::offer(closed, deployment());

    EXPECT_FALSE(closed.isOver() || closed.isReported || closed.toldDownload);
    EXPECT_EQ(closed.components[0].stage, Stage::Wanted);
    EXPECT_EQ(closed.components[0].sentence, "");
    EXPECT_EQ(closed.components[1].stage, Stage::Asked);
  }
}

TEST(FleetAction, IsAnotherOneWhenItsNumberIsUsedForSomethingElse) {
  Action closed = action(Stage::Installed);
  closed.ending = Ending::Success;
  closed.isReported = true;
  auto other = deployment();
  other.chunks[0].version = "3.0";

  fleet::offer(closed, other);

  EXPECT_FALSE(closed.isOver());
  EXPECT_EQ(closed.components[0].version, "3.0");
  EXPECT_EQ(closed.components[0].stage, Stage::Wanted);
}

TEST(FleetAction, FailsWhenItIsChangedWhileItIsInstalled) {
  Action open = action(Stage::Checked);
  open.components[0].stage = Stage::Asked;
  auto other = deployment();
  other.chunks[0].artifacts[0].sha256 = std::string(64, 'b');

  fleet::offer(open, other);

  EXPECT_EQ(open.problem, "The server changed the action while it was being installed.");
  EXPECT_EQ(open.components[0].artifacts[0].sha256, std::string(64, 'a'));
}

TEST(FleetCancelling, IsAcceptedUntilAComponentWasAsked) {
  for (const Stage stage :
       {Stage::Wanted, Stage::Downloaded, Stage::Checked, Stage::Failed, Stage::Installed}) {
    Action open = action(stage);

    fleet::wantCancel(open);

    EXPECT_EQ(open.cancel, Cancel::Accepting) << static_cast<int>(stage);
  }
  Action open = action(Stage::Checked);
  open.components[1].stage = Stage::Asked;

  fleet::wantCancel(open);

  EXPECT_EQ(open.cancel, Cancel::Refusing);
}

TEST(FleetCancelling, IsRefusedWhenSomethingWasInstalledOrMayHaveBeen) {
  for (const Stage stage : {Stage::Installed, Stage::Failed}) {
    Action open = action(Stage::Checked);
    open.components[0].stage = stage;
    open.components[0].attempts = 1;

    fleet::wantCancel(open);

    EXPECT_EQ(open.cancel, Cancel::Refusing) << static_cast<int>(stage);
  }
}

TEST(FleetCancelling, IsRefusedOnceTheActionHasEnded) {
  for (const Ending ending : {Ending::Success, Ending::Failure}) {
    Action ended = action();
    ended.ending = ending;

    fleet::wantCancel(ended);

    EXPECT_EQ(ended.cancel, Cancel::Refusing);
  }
}

TEST(FleetCancelling, KeepsItsDecisionUntilTheServerHasIt) {
  Action open = action(Stage::Checked);
  fleet::wantCancel(open);
  open.components[0].stage = Stage::Asked;  // as it never may be

  fleet::wantCancel(open);

  EXPECT_EQ(open.cancel, Cancel::Accepting);
}

TEST(FleetCancelling, EndsTheActionOnlyWhenItWasAccepted) {
  Action accepted = action();
  accepted.cancel = Cancel::Accepting;
  Action refused = action(Stage::Asked);
  refused.cancel = Cancel::Refusing;

  fleet::cancelAnswered(accepted);
  fleet::cancelAnswered(refused);

  EXPECT_EQ(accepted.ending, Ending::Canceled);
  EXPECT_TRUE(accepted.isReported);
  EXPECT_EQ(refused.ending, Ending::None);
  EXPECT_EQ(refused.cancel, Cancel::None);
}

TEST(FleetConfirmation, IsDecidedOnce) {
  Action wanted = fleet::actionToConfirm(deployment(), 1);

  fleet::confirm(wanted, false);
  fleet::confirm(wanted, true);

  EXPECT_EQ(wanted.confirmation, Confirmation::Denying);
}

TEST(FleetAction, IsGoneButNotOtherwiseThanItEnded) {
  Action open = action();
  Action closed = action();
  closed.ending = Ending::Failure;

  fleet::forget(open);
  fleet::forget(closed);

  EXPECT_EQ(open.ending, Ending::Gone);
  EXPECT_EQ(closed.ending, Ending::Failure);
  EXPECT_TRUE(open.isReported && closed.isReported);
}

TEST(FleetComponent, IsInstalledAlreadyWhenItReportsItsVersion) {
  Component component = asked(0);

  fleet::ask(component, 0, "2.0");

  EXPECT_EQ(component.stage, Stage::Installed);
  EXPECT_EQ(component.attempts, 0);
}

TEST(FleetComponent, KeepsTheVersionThatItHadWhenItIsAsked) {
  Component component = asked(0);
  component.stage = Stage::Checked;

  fleet::ask(component, 7, "1.5");

  EXPECT_EQ(component.stage, Stage::Asked);
  EXPECT_EQ(component.versionBefore, "1.5");
  EXPECT_EQ(component.jobBefore, 7U);
  EXPECT_EQ(component.attempts, 1);
}

TEST(FleetComponent, IsAskedAnewWhenNothingOfItWasTaken) {
  Component component = asked(2);

  fleet::askLater(component);

  EXPECT_EQ(component.stage, Stage::Checked);
  EXPECT_EQ(component.attempts, 1);
}

TEST(FleetComponent, IsInstalledOnlyWhenItReportsTheVersionItself) {
  Component right = asked(), wrong = asked(), silent = asked();

  fleet::settle(right, JobEnd::Updated, "2.0", "", "");
  fleet::settle(wrong, JobEnd::Updated, "1.0", "", "");
  fleet::settle(silent, JobEnd::Updated, "", "", "");

  EXPECT_EQ(right.stage, Stage::Installed);
  EXPECT_EQ(wrong.stage, Stage::Failed);
  EXPECT_EQ(wrong.sentence, "tunerfw reports version 1.0 after its update, and not 2.0.");
  EXPECT_EQ(silent.sentence, "tunerfw reports version none after its update, and not 2.0.");
}

TEST(FleetComponent, FailsWithTheSentenceOfItsJobWhateverItReports) {
  Component component = asked();

  fleet::settle(component, JobEnd::Failed, "2.0", "It could not be written.", "Try again.");

  EXPECT_EQ(component.stage, Stage::Failed);
  EXPECT_EQ(component.sentence, "It could not be written.");
  EXPECT_EQ(component.remedy, "Try again.");
}

TEST(FleetComponent, IsInstalledWhenAJobThatWasNotNeededFoundTheVersionThere) {
  Component there = asked(), other = asked();

  fleet::settle(there, JobEnd::NotNeeded, "2.0", "The module wants no update.", "");
  fleet::settle(other, JobEnd::NotNeeded, "1.0", "The module wants no update.", "");

  EXPECT_EQ(there.stage, Stage::Installed);
  EXPECT_EQ(other.stage, Stage::Failed);
  EXPECT_EQ(other.sentence, "The module wants no update.");
}

TEST(FleetComponent, IsJudgedByItsVersionWhenItsJobIsLost) {
  Component installed = asked(), untouched = asked(), other = asked();

  fleet::settle(installed, JobEnd::Unknown, "2.0", "", "");
  fleet::settle(untouched, JobEnd::Unknown, "1.0", "", "");
  fleet::settle(other, JobEnd::Unknown, "0.9", "", "");

  EXPECT_EQ(installed.stage, Stage::Installed);
  EXPECT_EQ(untouched.stage, Stage::Checked);
  EXPECT_EQ(other.stage, Stage::Failed);
}

TEST(FleetComponent, IsNotAskedForEver) {
  Component second = asked(fleet::kMostAttempts - 1), last = asked(fleet::kMostAttempts);

  fleet::settle(second, JobEnd::Unknown, "1.0", "", "");
  fleet::settle(last, JobEnd::Unknown, "1.0", "", "");

  EXPECT_EQ(second.stage, Stage::Checked);
  EXPECT_EQ(last.stage, Stage::Failed);
  EXPECT_EQ(last.sentence, "The update of tunerfw was interrupted 3 times.");
}

TEST(FleetEnd, IsASuccessOnlyWhenEveryComponentIsInstalled) {
  Action whole = action(Stage::Installed), half = action(Stage::Installed),
         refused = action(Stage::Installed);
  half.components[1].stage = Stage::Failed;
  refused.problem = "No.";
  Action empty;

  for (Action* one : {&whole, &half, &refused, &empty}) {
    fleet::conclude(*one);
  }

  EXPECT_EQ(whole.ending, Ending::Success);
  EXPECT_EQ(half.ending, Ending::Failure);
  EXPECT_EQ(refused.ending, Ending::Failure);
  EXPECT_EQ(empty.ending, Ending::Failure);
}

TEST(FleetEnd, IsLeftAsItIs) {
  Action gone = action(Stage::Installed);
  gone.ending = Ending::Gone;

  fleet::conclude(gone);

  EXPECT_EQ(gone.ending, Ending::Gone);
}

TEST(FleetEnd, TellsWhatFailedFirstAndThenHowEachComponentStands) {
  Action half = action(Stage::Installed);
  fleet::fail(half.components[1], "It could not be written.", "Try again.");
  fleet::conclude(half);

  EXPECT_THAT(messagesOf(half), ElementsAre("It could not be written.", "Try again.",
                                            "tunerfw reports version 2.0.", "panelfw was not updated."));
}

TEST(FleetEnd, TellsThatTheOwnerDeclined) {
  Action declined = action(Stage::Checked);
  declined.consent = Consent::Declined;
  fleet::conclude(declined);

  EXPECT_EQ(messagesOf(declined).at(0), "The owner of the set declined.");
}

}  // namespace
