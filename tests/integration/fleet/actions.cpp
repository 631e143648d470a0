// SPDX-License-Identifier: Apache-2.0
// Whole actions, from the server's wish to what it holds at the end.
#include <json/value.h>
#include <unistd.h>

#include <filesystem>

#include "fleet-test.h"
#include "status.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const auto kWholeUpdate =
    ElementsAre("download none", "downloaded none", "proceeding none", "closed success");

class FleetAgent : public FleetTest {
 protected:
  std::string stateShown() const {
    return fleet::statusOf(*agent_, configuration_, 0)["actions"][0]["state"].asString();
  }
};

TEST_F(FleetAgent, UpdatesAllComponentsInTheServersOrderAndSaysSoOnce) {
  assignTwo();

  turns(3);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0", "panelfw: 3.0"));
  EXPECT_THAT(lab_.history(), kWholeUpdate);
  EXPECT_EQ(lab_.stateOf(), "finished");
  EXPECT_THAT(lab_.messages(), ElementsAre("tunerfw reports version 2.0.", "panelfw reports version 3.0."));
}

TEST_F(FleetAgent, HandsOverWhatArtifactsAreAsWhatTheyAre) {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': ["
             "{'name': 'tunerfw', 'version': 'hsqs 2', 'files': {'a.img': 'hsqs 2'}}, "
             "{'name': 'panelfw', 'version': '2.0', 'files': {'a.bin': '2.0', 'info.json': '{}'}}, "
             "{'name': 'wififw', 'version': '3.0', 'files': {'a.img': '3.0'}}]}");
  installer_.components["wififw"] = "1.0";

  turns(2);

  EXPECT_THAT(installer_.kinds, ElementsAre(fleet::Kind::Package, fleet::Kind::Image, fleet::Kind::Usb));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, TellsItsVersionsAtFirstAndAfterAnUpdate) {
  turns(1);
  EXPECT_EQ(lab_.state()["sets"]["tv1"]["attributes"]["version.tunerfw"].asString(), "1.0");
  EXPECT_EQ(lab_.state()["sets"]["tv1"]["attributes"]["model"].asString(), "X1");

  assign();
  turns(2);

  EXPECT_EQ(lab_.state()["sets"]["tv1"]["attributes"]["version.tunerfw"].asString(), "2.0");
  EXPECT_EQ(lab_.requests("installedBase"), 1);
}

TEST_F(FleetAgent, TellsItsVersionsOnceTheUpdateServiceAnswers) {
  installer_.isAway = true;
  turns(1);
  EXPECT_THAT(log_, Contains("The update service does not answer."));
  EXPECT_EQ(lab_.requests("configData"), 0);

  installer_.isAway = false;
  turns(1);

  EXPECT_EQ(lab_.state()["sets"]["tv1"]["attributes"]["version.tunerfw"].asString(), "1.0");
}

TEST_F(FleetAgent, InstallsNothingThatIsThereAlready) {
  installer_.components["tunerfw"] = "2.0";
  assign();

  turns(2);

  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, FailsForAComponentThatTheSetDoesNotHaveBeforeAnythingIsDownloaded) {
  installer_.components.erase("panelfw");
  assignTwo();

  turns(2);

  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("The set has no component panelfw."));
}

TEST_F(FleetAgent, FailsWithSentenceAndRemedyWhenArtifactsAreRefused) {
  checked_.sentence = "The package is refused: it is not signed.";
  checked_.remedy = "Have it signed.";
  assignTwo();

  turns(2);

  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_THAT(lab_.messages(), ElementsAre("The package is refused: it is not signed.", "Have it signed.",
                                           "tunerfw was not updated.", "panelfw was not updated."));
}

TEST_F(FleetAgent, FailsWithWhatTheUpdateServiceSays) {
  installer_.failure = "The module refused the image.";
  assignTwo();

  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), Contains("closed failure"));
  EXPECT_THAT(lab_.messages(), ElementsAre("The module refused the image.", "Look at the module.",
                                           "tunerfw was not updated.", "panelfw was not updated."));
}

TEST_F(FleetAgent, FailsWhenTheUpdateServiceTakesItNot) {
  installer_.refusal = "The image is too old.";
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("The image is too old."));
}

TEST_F(FleetAgent, IsNoSuccessWhenTheComponentReportsAnotherVersion) {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a': '1.9'}}]}");

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("tunerfw reports version 1.9 after its update, and not 2.0."));
}

TEST_F(FleetAgent, WaitsForAnUpdateServiceThatIsAway) {
  assign();
  installer_.isAway = true;
  turns(3);
  EXPECT_EQ(lab_.stateOf(), "running");

  installer_.isAway = false;
  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, SaysThatItFailedAfterADayWithoutTheUpdateService) {
  assign();
  installer_.isAway = true;
  turns(2);
  time_ += std::chrono::hours(23);
  turns(2);
  EXPECT_EQ(lab_.stateOf(), "running");

  time_ += std::chrono::hours(1);
  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_EQ(action().components[0].sentence,
            "For a day nothing could be updated. The update service does not answer.");
  EXPECT_EQ(lab_.history().back(), "closed failure");
}

TEST_F(FleetAgent, CountsTheTimeWithoutTheUpdateServiceThroughWhatTheServerTakesBack) {
  assign();
  installer_.isAway = true;
  turns(2);
  time_ += std::chrono::hours(23);
  lab_.steer("cancel", "{'set': 'tv1'}");
  turns(2);
  EXPECT_EQ(lab_.stateOf("1"), "canceled");
  assign();
  turns(2);
  EXPECT_EQ(lab_.stateOf("2"), "running");

  time_ += std::chrono::hours(1);
  turns(2);

  EXPECT_EQ(lab_.stateOf("2"), "error");
}

TEST_F(FleetAgent, WaitsForTheUpdateServiceAnewAfterItAnswered) {
  assign();
  installer_.isAway = true;
  turns(2);
  installer_.isAway = false;
  installer_.turnsOfJob = 1000;
  turns(2);
  installer_.whenFollowed = [] { throw fleet::InstallerAway("The update service does not answer."); };
  time_ += std::chrono::hours(25);

  turns(1);

  EXPECT_EQ(lab_.stateOf(), "running");
}

TEST_F(FleetAgent, UpdatesWhatItsOwnerConsentsTo) {
  configuration_.consent = fleet::ConsentPolicy::Update;
  assign(", 'download': 'attempt', 'update': 'attempt'");
  turns(3);
  EXPECT_EQ(agent_->asks(action()), "update");
  EXPECT_EQ(versionOf("tunerfw"), "1.0");
  EXPECT_FALSE(agent_->consent("2", true));

  EXPECT_TRUE(agent_->consent("1", true));
  restart();
  turns(2);

  EXPECT_EQ(agent_->asks(action()), "");
  EXPECT_FALSE(agent_->consent("1", false));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, AsksBeforeItDownloadsWhereItIsConfiguredToAndTellsARefusal) {
  configuration_.consent = fleet::ConsentPolicy::Download;
  assign(", 'download': 'attempt', 'update': 'attempt'");
  turns(2);
  EXPECT_EQ(agent_->asks(action()), "download");

  EXPECT_TRUE(agent_->consent("1", false));
  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
}

TEST_F(FleetAgent, ConfirmsWhenItsOwnerDoes) {
  configuration_.confirm = fleet::ConfirmPolicy::Ask;
  assign(", 'confirm': true");
  turns(3);
  EXPECT_EQ(agent_->asks(action()), "confirm");
  EXPECT_THAT(lab_.history(), ElementsAre());

  EXPECT_TRUE(agent_->consent("1", true));
  turns(3);

  EXPECT_THAT(lab_.history(), ElementsAre("confirmed none", "download none", "downloaded none",
                                          "proceeding none", "closed success"));
}

TEST_F(FleetAgent, ConfirmsBeforeItDownloads) {
  assign(", 'confirm': true");

  turns(4);

  EXPECT_THAT(lab_.history(), ElementsAre("confirmed none", "download none", "downloaded none",
                                          "proceeding none", "closed success"));
}

TEST_F(FleetAgent, ConfirmsAgainWhatTheServerDidNotHear) {
  lab_.steer("switch", "{'answers': [{'what': 'confirmationBase/feedback', 'status': 500}]}");
  assign(", 'confirm': true");

  turns(5);

  EXPECT_THAT(troubles_, Contains(HasSubstr("answered 500")));
  EXPECT_THAT(lab_.history(), ElementsAre("confirmed none", "download none", "downloaded none",
                                          "proceeding none", "closed success"));
}

TEST_F(FleetAgent, AsksAnewWhetherToConfirmWhatWasTakenBack) {
  configuration_.confirm = fleet::ConfirmPolicy::Ask;
  assign(", 'confirm': true");
  turns(2);
  lab_.steer("forget", "{'set': 'tv1'}");
  turns(2);
  ASSERT_EQ(action().ending, fleet::Ending::Gone);

  assign(", 'confirm': true, 'id': '1'");
  turns(2);

  EXPECT_EQ(agent_->asks(action()), "confirm");
  EXPECT_EQ(action().ending, fleet::Ending::None);
}

TEST_F(FleetAgent, DeniesOnceWhereItIsConfiguredTo) {
  configuration_.confirm = fleet::ConfirmPolicy::No;
  assign(", 'confirm': true");

  turns(5);

  EXPECT_THAT(lab_.history(), ElementsAre("denied none"));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_EQ(stateShown(), "denied");
  restart();
  turns(1);
  EXPECT_EQ(stateShown(), "denied");
  EXPECT_THAT(lab_.history(), ElementsAre("denied none"));
}

TEST_F(FleetAgent, ShowsADenialAlsoBeforeTheServerHearsOfIt) {
  configuration_.confirm = fleet::ConfirmPolicy::Ask;
  assign(", 'confirm': true");
  turns(2);
  EXPECT_EQ(stateShown(), "open");

  EXPECT_TRUE(agent_->consent("1", false));

  EXPECT_EQ(stateShown(), "denied");
}

TEST_F(FleetAgent, WaitsWhenTheUpdateIsToBeSkippedUntilTheWindowOpens) {
  assign(", 'update': 'skip', 'window': 'unavailable'");
  turns(4);
  EXPECT_THAT(lab_.history(), ElementsAre("download none", "downloaded none"));
  EXPECT_THAT(installer_.asked, IsEmpty());

  lab_.steer("change", "{'set': 'tv1', 'update': 'forced', 'window': 'available'}");
  turns(2);

  EXPECT_THAT(lab_.history(), kWholeUpdate);
}

TEST_F(FleetAgent, LeavesTheEndOfADownloadToTheServer) {
  assign(", 'update': 'skip'");

  turns(4);

  EXPECT_THAT(lab_.history(), ElementsAre("download none", "downloaded none"));
  EXPECT_EQ(lab_.stateOf(), "finished");
  EXPECT_EQ(action().ending, fleet::Ending::Gone);
}

// Its word that it downloads gets lost for good, its word that it has downloaded does not.
TEST_F(FleetAgent, TellsTheEndOfADownloadAgainThatTheServerDidNotHear) {
  lab_.steer("switch", "{'answers': [{'what': 'deploymentBase/feedback', 'status': 500, 'times': 2}]}");
  assign(", 'update': 'skip'");

  turns(4);

  EXPECT_THAT(troubles_, Contains(HasSubstr("answered 500")));
  EXPECT_THAT(lab_.history(), ElementsAre("downloaded none"));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, DownloadsAgainWhatSomebodyRemovedFromItsStore) {
  assign(", 'update': 'skip', 'window': 'unavailable'");
  turns(2);
  ASSERT_EQ(action().components.at(0).stage, fleet::Stage::Checked);
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path() + "/store")) {
    std::filesystem::remove(entry.path());
  }

  lab_.steer("change", "{'set': 'tv1', 'update': 'forced', 'window': 'available'}");
  turns(2);

  EXPECT_EQ(lab_.requests("softwaremodules"), 2);
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, FailsWhereThereIsNoRoomBeforeAnythingIsDownloaded) {
  constexpr std::int64_t kMore = std::int64_t{1} << 50;
  configuration_.largestArtifact = kMore;
  configuration_.largestAction = kMore;
  restart();
  lab_.steer("switch", "{'artifact': {'size': " + std::to_string(kMore) + "}}");
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(),
              Contains(HasSubstr("There is no room for the update: it needs 1125899906842624")));
  EXPECT_THAT(lab_.messages(), Contains("Free space in /var/lib/fw-fleet."));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
}

TEST_F(FleetAgent, AsksForNothingWhileTheDownloadIsToBeSkipped) {
  assign(", 'download': 'skip'");

  turns(3);

  EXPECT_THAT(lab_.history(), IsEmpty());
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
}

TEST_F(FleetAgent, WaitsForConsentUntilTheServerForcesIt) {
  configuration_.consent = fleet::ConsentPolicy::Update;
  assign(", 'download': 'attempt', 'update': 'attempt'");
  turns(3);
  EXPECT_THAT(installer_.asked, IsEmpty());

  lab_.steer("change", "{'set': 'tv1', 'update': 'forced'}");
  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, StopsWhenItIsCancelledDuringTheDownload) {
  lab_.steer("switch", "{'onArtifact': ['cancel', {'set': 'tv1'}]}");
  whenTimeIsAsked_ = [this] { time_ += std::chrono::minutes(1); };
  assignTwoFiles();

  turns(3);

  EXPECT_THAT(lab_.history(), ElementsAre("download none", "cancel closed success"));
  EXPECT_EQ(lab_.stateOf(), "canceled");
  EXPECT_EQ(lab_.requests("softwaremodules"), 1);
  EXPECT_THAT(installer_.asked, IsEmpty());
}

TEST_F(FleetAgent, StopsWhenItsCancellationIsForcedBeforeTheAnswerArrives) {
  lab_.steer("switch",
             "{'onArtifact': ['cancel', {'set': 'tv1'}], "
             "'answers': [{'what': 'cancelAction/feedback', 'status': 500, 'times': 100}]}");
  whenTimeIsAsked_ = [this] { time_ += std::chrono::minutes(1); };
  assignTwoFiles();
  turns(3);
  EXPECT_EQ(lab_.stateOf(), "canceling");

  lab_.steer("forget", "{'set': 'tv1'}");
  turns(2);

  EXPECT_EQ(lab_.requests("softwaremodules"), 1);
  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(action().ending, fleet::Ending::Gone);
}

TEST_F(FleetAgent, StopsWhenTheActionIsGoneDuringTheDownload) {
  lab_.steer("switch", "{'onArtifact': ['forget', {'set': 'tv1'}]}");
  whenTimeIsAsked_ = [this] { time_ += std::chrono::minutes(1); };
  assignTwoFiles();

  turns(3);

  EXPECT_THAT(lab_.history(), ElementsAre("download none"));
  EXPECT_EQ(lab_.requests("softwaremodules"), 1);
  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(action().ending, fleet::Ending::Gone);
}

TEST_F(FleetAgent, SaysThatACancellationCameTooLateAndFinishes) {
  installer_.turnsOfJob = 3;
  assign();
  turns(1);
  lab_.steer("cancel", "{'set': 'tv1'}");

  turns(4);

  EXPECT_THAT(lab_.history(), ElementsAre("download none", "downloaded none", "proceeding none",
                                          "cancel rejected none", "closed success"));
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
}

TEST_F(FleetAgent, TakesBackAnActionThatItDoesNotKnow) {
  assign();
  lab_.steer("cancel", "{'set': 'tv1'}");

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "canceled");
}

TEST_F(FleetAgent, EndsAnInstallationWhoseActionIsGoneAndTellsNobody) {
  installer_.turnsOfJob = 3;
  assign();
  turns(1);
  lab_.steer("forget", "{'set': 'tv1'}");

  turns(4);

  EXPECT_EQ(versionOf("tunerfw"), "2.0");
  EXPECT_EQ(lab_.state()["actions"]["1"]["refused"].size(), 1U);
  EXPECT_TRUE(action().isReported);
}

TEST_F(FleetAgent, AnswersAnActionThatIsOfferedAgainWithoutInstallingIt) {
  assign();
  turns(2);
  installer_.components["tunerfw"] = "2.1";  // somebody went on from there
  assign(", 'id': '1'");

  turns(3);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), ElementsAre("closed success"));
}

TEST_F(FleetAgent, TakesOtherContentUnderTheSameIdForAnotherAction) {
  assign();
  turns(2);
  lab_.steer("assign",
             "{'id': '1', 'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '3.0', "
             "'files': {'a.img': '3.0'}}]}");

  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0", "tunerfw: 3.0"));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, TellsAnEndInOtherWordsWhenTheServerDoesNotTakeItsMessages) {
  installer_.turnsOfJob = 2;
  assign();
  turns(1);
  lab_.steer("switch", "{'answers': [{'what': 'deploymentBase/feedback', 'status': 400}]}");

  turns(2);

  EXPECT_THAT(lab_.history(), kWholeUpdate);
  EXPECT_THAT(lab_.messages(), ElementsAre("The server did not take the messages of this end."));
}

TEST_F(FleetAgent, KeepsNoArtifactsOfWhatIsOver) {
  assign();

  turns(2);

  EXPECT_EQ(rmdir((folder_.path() + "/store").c_str()), 0);  // it is empty
}

TEST_F(FleetAgent, KeepsOfWhatIsOverOnlyWhatLaterOffersAreComparedWith) {
  assign();
  turns(2);
  restart();

  EXPECT_EQ(action().components.at(0).name, "tunerfw");
  EXPECT_EQ(action().components.at(0).stage, fleet::Stage::Installed);
  EXPECT_THAT(action().components.at(0).artifacts, IsEmpty());
  EXPECT_THAT(textOf(action()), Not(HasSubstr("http://")));

  installer_.components["tunerfw"] = "2.1";
  assign(", 'id': '1'");
  turns(2);
  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), ElementsAre("closed success"));
  EXPECT_THAT(action().components.at(0).artifacts, IsEmpty());
}

TEST_F(FleetAgent, BeginsAgainWithWhatWasTakenBackAndIsWantedAfterAll) {
  configuration_.consent = fleet::ConsentPolicy::Download;
  restart();
  assign(", 'download': 'attempt', 'update': 'attempt'");
  turns(1);
  lab_.steer("cancel", "{'set': 'tv1'}");
  turns(1);
  ASSERT_EQ(action().ending, fleet::Ending::Canceled);
  EXPECT_THAT(action().components.at(0).artifacts, IsEmpty());
  restart();

  assign(", 'id': '1'");
  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

// What is allowed may have changed since the action was taken.
TEST_F(FleetAgent, AsksForNoArtifactThatIsTooLarge) {
  configuration_.largestArtifact = 2;
  restart();

  const fleet::Downloaded downloaded =
      downloader_->download({"a.img", 3, std::string(64, 'a'), lab_.address() + "/a.img"}, [] {});

  EXPECT_EQ(downloaded.end, fleet::Download::Never);
  EXPECT_EQ(downloaded.sentence, "a.img is larger than the 2 bytes that are allowed.");
  EXPECT_EQ(lab_.requests("a.img"), 0);
}

TEST_F(FleetAgent, FailsForAnArtifactThatIsTooLargeBeforeAnythingIsDownloaded) {
  configuration_.largestArtifact = 2;
  restart();
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2', 'files': {'a.img': '2'}}, "
             "{'name': 'panelfw', 'version': '3.0', 'files': {'a.img': '3.0'}}]}");

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("a.img: a.img is larger than the 2 bytes that are allowed."));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
}

TEST_F(FleetAgent, FailsForAnActionThatIsTooLargeBeforeAnythingIsDownloaded) {
  configuration_.largestAction = 7;
  restart();
  assignTwo();  // of 3, 3 and 2 bytes

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(),
              ElementsAre("The artifacts of the action have more than the 7 bytes that are allowed together.",
                          "Offer less in one action, or set max-action in /etc/fw-update/fw-fleet.conf.",
                          "tunerfw was not updated.", "panelfw was not updated."));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
}

TEST_F(FleetAgent, UpdatesFromAnActionThatIsAsLargeAsIsAllowed) {
  configuration_.largestAction = 8;
  restart();
  assignTwo();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, CountsForTheLimitOfAnActionNothingThatIsInstalledAlready) {
  configuration_.largestAction = 5;
  installer_.components["tunerfw"] = "2.0";
  restart();
  assignTwo();

  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("panelfw: 3.0"));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

// Many of them have a sum that is no number any more.
TEST_F(FleetAgent, AddsNoSizesThatAreTooLarge) {
  lab_.steer("switch", "{'artifact': {'size': 9007199254740992}}");
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("a.img: a.img is larger than the 536870912 bytes that are allowed."));
}

TEST_F(FleetAgent, LeavesAServerThatGivesLittleAtATimeUntilTheNextPoll) {
  lab_.steer("switch", "{'cutEach': 1}");
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '" +
                 std::string(60, 'x') + "'}}]}");

  turns(1);
  EXPECT_EQ(lab_.requests("softwaremodules"), 8);
  EXPECT_THAT(agent_->trouble(), HasSubstr("The server stopped after "));
  turns(1);
  EXPECT_EQ(lab_.requests("softwaremodules"), 16);

  hour();
  EXPECT_EQ(installer_.asked.size(), 1U);
}

// Power

TEST_F(FleetAgent, GoesOnWithADownloadAfterThePowerWasCut) {
  assignLarge();
  lab_.steer("switch", "{'cutAt': 120000}");
  whenTimeIsAsked_ = [&] {
    if (partSize() > 0) {
      whenTimeIsAsked_ = [] {};
      throw PowerCut();
    }
  };

  turnsThroughCuts(4);

  EXPECT_EQ(lab_.requests("softwaremodules"), 2);
  EXPECT_EQ(lab_.countOf("range"), 1);
  EXPECT_EQ(lab_.countOf("match"), 1);
  EXPECT_EQ(installer_.asked.size(), 1U);
}

TEST_F(FleetAgent, AsksAgainWhenThePowerWasCutBeforeTheUpdateServiceWasAsked) {
  installer_.whenAsked = [this] {
    installer_.whenAsked = [] {};
    throw PowerCut();
  };
  assign();

  turnsThroughCuts(5);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), kWholeUpdate);
}

TEST_F(FleetAgent, AsksTheComponentWhenThePowerWasCutDuringItsUpdate) {
  installer_.whenFollowed = [this] {
    installer_.whenFollowed = [] {};
    installer_.components["tunerfw"] = "2.0";  // the module had finished
    throw PowerCut();
  };
  assign();

  turnsThroughCuts(5);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), kWholeUpdate);
}

TEST_F(FleetAgent, DoesNotTakeTheEndOfAnEarlierJobForThatOfItsOwn) {
  installer_.failedBefore = 3;
  installer_.whenAsked = [this] {
    installer_.whenAsked = [] {};
    throw PowerCut();
  };
  assign();

  turnsThroughCuts(5);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), kWholeUpdate);
}

TEST_F(FleetAgent, CountsNoAttemptWhileTheComponentIsBeingUpdatedForOthers) {
  installer_.isBusy = true;
  assign();
  turns(6);
  EXPECT_EQ(lab_.stateOf(), "running");

  installer_.isBusy = false;
  turns(1);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetAgent, AsksThreeTimesWhenThePowerIsCutDuringEachUpdate) {
  installer_.whenFollowed = [this] {
    if (!installer_.jobs.empty()) {
      throw PowerCut();
    }
  };
  assign();

  turnsThroughCuts(12);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0", "tunerfw: 2.0", "tunerfw: 2.0"));
  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains("The update of tunerfw was interrupted 3 times."));
}

TEST_F(FleetAgent, AsksThreeTimesWhenThePowerIsCutWheneverItAsks) {
  int asked = 0;
  installer_.whenAsked = [&asked] {
    ++asked;
    throw PowerCut();
  };
  assign();

  turnsThroughCuts(12);

  EXPECT_EQ(asked, 3);
  EXPECT_EQ(lab_.stateOf(), "error");
}

TEST_F(FleetAgent, FollowsTheJobOfItsFormerProcess) {
  installer_.turnsOfJob = 2;
  assign();
  turns(1);

  restart();
  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_THAT(lab_.history(), kWholeUpdate);
}

}  // namespace
