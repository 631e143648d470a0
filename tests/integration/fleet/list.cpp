// SPDX-License-Identifier: Apache-2.0
// A set that takes its updates from a signed list in a directory.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "fleet-test.h"
#include "list-signature.h"
#include "list-source.h"
#include "release-list.h"
#include "signed-package.h"
#include "status.h"

namespace {

using fleet::Ending;
using image::ReleaseList;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kIssued = 1795348800;  // 2026-11-22T12:00:00Z
constexpr char kNoText[] = "";

class FleetList : public FleetTest {
 protected:
  FleetList() {
    configuration_.source = fleet::SourceType::List;
    configuration_.list = lab_.address() + "/plain/tv/releases.json";
    configuration_.controller = "";
    makeSource_ = [this] {
      fleet::ListParts parts;
      parts.model = "set-7";
      parts.versions = [this] {
        whenVersionsAreAsked_();
        return installer_.versions();
      };
      parts.clock = [this] { return static_cast<std::time_t>(clock_); };
      parts.trust = key_.trust();
      parts.directory = folder_.path();
      return std::make_unique<fleet::ListSource>(configuration_, token_, parts);
    };
    restart();
  }

  // Of one artifact, which is the version.
  void add(ReleaseList& list, const std::string& name, const std::string& version,
           const std::string& model = kNoText) {
    const std::string path = write(name + "-" + version, version);
    const std::string sum = fwpack::sha256Of(path);
    list.components.push_back(
        {name, version, "", model, {{name + ".img", static_cast<std::int64_t>(version.size()), sum}}});
    published_["tv/artifacts/" + sum] = path;
  }
  static ReleaseList empty(std::int64_t number, std::int64_t issued = kIssued) {
    return {number, issued, issued + 30 * kDay, {}};
  }
  ReleaseList listOf(std::int64_t number, const std::string& version = "2.0", std::int64_t issued = kIssued) {
    ReleaseList list = empty(number, issued);
    add(list, "tunerfw", version);
    return list;
  }

  void publish(const ReleaseList& list) { publish(toText(list), key_); }
  void publish(const std::string& text, const fwpack::SigningKey& key) {
    fwpackage::Statements statements;
    statements.kind = fwpackage::Kind::ReleaseList;
    statements.name = fwpackage::kListName;
    statements.version = "7";
    publish(text, signedFile(text, key, statements).substr(text.size()));
  }
  void publish(const std::string& text, const std::string& signature) {
    published_["tv/releases.json"] = write("releases.json", text);
    published_["tv/releases.json.sig"] = write("releases.json.sig", signature);
    std::string order;
    for (const auto& [name, path] : published_) {
      order += (order.empty() ? "{'" : ", '") + name + "': '" + path + "'";
    }
    lab_.steer("publish", order + "}");
  }
  void unpublish(const std::string& name) {
    published_.erase(name);
    std::string order;
    for (const auto& [other, path] : published_) {
      order += (order.empty() ? "{'" : ", '") + other + "': '" + path + "'";
    }
    lab_.steer("publish", order + "}");
  }
  std::string write(const std::string& name, const std::string& content) const {
    const std::string path = folder_.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  // Which file it is by now: another one after each write.
  ino_t fileOf(const std::string& name) const {
    struct stat file {};
    return stat((folder_.path() + "/" + name).c_str(), &file) == 0 ? file.st_ino : 0;
  }
  std::string artifactOf(const ReleaseList& list) const {
    return "tv/artifacts/" + list.components.at(0).artifacts.at(0).sha256;
  }

  const fwpack::SigningKey& key_ = testSigningKey("ed25519");
  std::int64_t clock_ = kIssued + kDay;
  std::function<void()> whenVersionsAreAsked_ = [] {};
  std::map<std::string, std::string> published_;
};

TEST_F(FleetList, HasWhatDiffersUpdated) {
  ReleaseList list = listOf(7);
  add(list, "panelfw", "1.0");
  publish(list);

  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("tunerfw: 2.0"));
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
  EXPECT_EQ(action().id, "list-7");
  EXPECT_EQ(action().ending, Ending::Success);
  EXPECT_EQ(agent_->trouble(), "");
}

TEST_F(FleetList, WaitsForAnUpdateServiceThatIsAway) {
  publish(listOf(7));
  installer_.isAway = true;
  turns(2);
  EXPECT_THAT(agent_->actions(), IsEmpty());
  EXPECT_EQ(agent_->trouble(), "The update service does not answer.");

  installer_.isAway = false;
  turns(2);

  EXPECT_EQ(action().ending, Ending::Success);
  EXPECT_EQ(agent_->trouble(), "");
}

TEST_F(FleetList, DoesNothingForWhatIsThere) {
  publish(listOf(7, "1.0"));

  turns(3);

  EXPECT_THAT(agent_->actions(), IsEmpty());
  EXPECT_EQ(lab_.requests("plain/releases.json"), 3);
}

TEST_F(FleetList, PassesOverOtherModelsAndComponents) {
  ReleaseList list = empty(7);
  add(list, "tunerfw", "2.0", "set-8");
  add(list, "wififw", "2.0");
  add(list, "panelfw", "3.0", "set-7");
  publish(list);

  turns(2);

  EXPECT_THAT(installer_.asked, ElementsAre("panelfw: 3.0"));
  EXPECT_EQ(action().ending, Ending::Success);
}

TEST_F(FleetList, IsRefusedWithoutAGoodSignature) {
  const std::string text = toText(listOf(7));
  publish(text, std::string("no signature"));
  turns(1);
  EXPECT_EQ(agent_->trouble(),
            "The release list is refused: the file does not end with a signature trailer.");

  publish(text, testSigningKey("rsa-3072"));
  turns(1);
  EXPECT_EQ(agent_->trouble(),
            "The release list is refused: no public key with the package's key identifier is known.");

  fwpackage::Statements statements;
  statements.kind = fwpackage::Kind::ReleaseList;
  statements.name = fwpackage::kListName;
  publish(text, signedFile(text + " ", key_, statements).substr(text.size() + 1));
  turns(1);
  EXPECT_EQ(agent_->trouble(), "The release list is refused: the signature does not match the content.");

  unpublish("tv/releases.json.sig");
  turns(1);
  EXPECT_THAT(agent_->trouble(), HasSubstr("The server answered 404 to "));
  EXPECT_THAT(agent_->actions(), IsEmpty());
  EXPECT_EQ(fileOf("list.seen"), 0U);
}

TEST_F(FleetList, IsRefusedWhenItIsNoList) {
  publish("{}", key_);

  turns(1);

  EXPECT_EQ(agent_->trouble(), "The release list is refused: it does not say its format.");
  EXPECT_THAT(agent_->actions(), IsEmpty());
}

TEST_F(FleetList, IsNotReadWhenItOrItsSignatureIsTooLarge) {
  publish(std::string(image::kLargestReleaseList + 1, ' '), key_);
  turns(1);
  EXPECT_EQ(agent_->trouble(), "The server's answer is larger than any document of its.");
  EXPECT_EQ(lab_.requests("plain/releases.json.sig"), 0);

  publish(toText(listOf(7)), std::string(fwpackage::kTrailerSize + 1, ' '));
  turns(1);
  EXPECT_EQ(agent_->trouble(), "The server's answer is larger than any document of its.");
}

TEST_F(FleetList, IsNotUsedOnceItExpired) {
  publish(listOf(7));
  clock_ = kIssued + 30 * kDay;

  turns(2);

  EXPECT_EQ(agent_->trouble(), "The release list 7 is not used: it expired at 2026-12-22T12:00:00Z.");
  EXPECT_THAT(agent_->actions(), IsEmpty());
  EXPECT_EQ(versionOf("tunerfw"), "1.0");
}

TEST_F(FleetList, ThatExpiresTakesBackWhatHasNotBegun) {
  const ReleaseList list = listOf(7);
  publish(list);
  unpublish(artifactOf(list));
  turns(1);
  ASSERT_EQ(action().ending, Ending::None);

  clock_ = kIssued + 30 * kDay;
  turns(1);

  EXPECT_EQ(action().ending, Ending::Gone);
}

TEST_F(FleetList, ThatExpiredIsNotGoneOnWithWhileNoListCanBeHad) {
  const ReleaseList list = listOf(7);
  const std::string artifact = published_[artifactOf(list)];
  publish(list);
  unpublish(artifactOf(list));
  turns(1);
  ASSERT_EQ(action().ending, Ending::None);
  unpublish("tv/releases.json");
  published_[artifactOf(list)] = artifact;
  unpublish("tv/releases.json.sig");

  clock_ = kIssued + 30 * kDay;
  turns(3);

  EXPECT_THAT(agent_->trouble(), HasSubstr("The server answered 404 to "));
  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(versionOf("tunerfw"), "1.0");

  clock_ = kIssued + 30 * kDay - 1;  // the same, but for the time
  turns(1);
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
}

TEST_F(FleetList, IsReadAnewBeforeItIsGoneOnWithAfterARestart) {
  ReleaseList list = listOf(7);
  configuration_.consent = fleet::ConsentPolicy::Update;
  restart();
  publish(list);
  turns(1);
  ASSERT_EQ(agent_->asks(action()), "update");
  ASSERT_TRUE(agent_->consent("list-7", true));
  unpublish("tv/releases.json");
  clock_ = kIssued + 30 * kDay;
  restart();

  turns(2);

  EXPECT_THAT(installer_.asked, IsEmpty());
  EXPECT_EQ(action().ending, Ending::None);
}

TEST_F(FleetList, IsNotUsedAfterANewerOne) {
  publish(listOf(7, "1.0", kIssued + 60));
  turns(1);

  publish(listOf(6, "2.0", kIssued + 61));
  turns(1);
  EXPECT_EQ(
      agent_->trouble(),
      "The release list 6 of 2026-11-22T12:01:01Z is refused: 7 of 2026-11-22T12:01:00Z was seen before, "
      "and is newer.");
  publish(listOf(8, "2.0", kIssued));
  turns(1);
  EXPECT_EQ(
      agent_->trouble(),
      "The release list 8 of 2026-11-22T12:00:00Z is refused: 7 of 2026-11-22T12:01:00Z was seen before, "
      "and is newer.");
  publish(listOf(7, "2.0", kIssued + 60));
  turns(1);
  EXPECT_EQ(agent_->trouble(),
            "The release list 7 is refused: another list with this number was seen before.");
  restart();
  turns(1);
  EXPECT_THAT(agent_->trouble(), HasSubstr("another list with this number"));
  EXPECT_THAT(agent_->actions(), IsEmpty());

  publish(listOf(8, "2.0", kIssued + 60));
  turns(2);
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
}

TEST_F(FleetList, IsNotUsedWhileTheClockIsNotSet) {
  publish(listOf(7));
  clock_ = 5;
  turns(1);
  EXPECT_EQ(agent_->trouble(),
            "The set's clock is not set: it says 1970-01-01T00:00:05Z. No release list is used until it is.");
  EXPECT_EQ(lab_.requests("plain/releases.json"), 0);

  clock_ = kIssued - 1;
  turns(1);
  EXPECT_EQ(agent_->trouble(),
            "The release list 7 was issued at 2026-11-22T12:00:00Z, and the set's clock says "
            "2026-11-22T11:59:59Z: the clock is not set, or the list is not to be used yet.");
  EXPECT_THAT(agent_->actions(), IsEmpty());

  clock_ = kIssued;
  turns(2);
  EXPECT_EQ(versionOf("tunerfw"), "2.0");

  clock_ = kIssued - 1;
  turns(1);
  EXPECT_THAT(agent_->trouble(), HasSubstr("The set's clock is not set: it says 2026-11-22T11:59:59Z."));
}

TEST_F(FleetList, IsNotUsedWithoutWhatWasSeen) {
  publish(listOf(7, "1.0"));
  turns(1);
  publish(listOf(6, "2.0"));
  write("list.seen", "damaged");

  turns(1);

  EXPECT_THAT(agent_->trouble(), HasSubstr("list.seen is damaged, or was made by a newer fw-fleet"));
  EXPECT_EQ(versionOf("tunerfw"), "1.0");
}

TEST_F(FleetList, FailsWithASentenceAndIsNotTriedAgain) {
  installer_.failure = "The module tuner failed.";
  publish(listOf(7));

  turns(4);

  EXPECT_EQ(action().ending, Ending::Failure);
  EXPECT_THAT(messagesOf(action()),
              ElementsAre("The module tuner failed.", "Look at the module.", "tunerfw was not updated."));
  EXPECT_EQ(installer_.asked.size(), 1U);

  installer_.failure = "";
  publish(listOf(8));
  turns(2);
  EXPECT_EQ(agent_->actions().back().ending, Ending::Success);
}

TEST_F(FleetList, ThatIsDoneWritesNothingAnyMore) {
  publish(listOf(7));
  turns(2);
  const auto seen = fileOf("list.seen");
  const auto action = fileOf("actions/list-7.action");
  ASSERT_NE(action, 0U);
  // Their numbers are not given to other files.
  const std::ifstream keptSeen(folder_.path() + "/list.seen");
  const std::ifstream keptAction(folder_.path() + "/actions/list-7.action");

  turns(3);

  EXPECT_EQ(fileOf("list.seen"), seen);
  EXPECT_EQ(fileOf("actions/list-7.action"), action);
}

TEST_F(FleetList, GoesOnAfterAPowerCutAnywhere) {
  ReleaseList list = listOf(7);
  add(list, "panelfw", "3.0");
  publish(list);
  int cutAt = 0;
  int calls = 0;
  const auto hook = [&] {
    if (++calls == cutAt) {
      throw PowerCut();
    }
  };
  installer_.whenAsked = installer_.whenFollowed = whenVersionsAreAsked_ = hook;
  for (cutAt = 1; cutAt < 40; ++cutAt) {
    calls = cutAt;  // not while it is made ready
    installer_.components = {{"tunerfw", "1.0"}, {"panelfw", "1.0"}};
    installer_.asked.clear();
    std::filesystem::remove_all(folder_.path() + "/actions");
    std::filesystem::remove(folder_.path() + "/list.seen");
    restart();
    calls = 0;

    turnsThroughCuts(6);

    EXPECT_EQ(versionOf("tunerfw"), "2.0") << cutAt;
    EXPECT_EQ(versionOf("panelfw"), "3.0") << cutAt;
    EXPECT_EQ(agent_->actions().size(), 1U) << cutAt;
    EXPECT_EQ(action().ending, Ending::Success) << cutAt;
    if (calls < cutAt) {
      return;
    }
  }
  FAIL() << "the cuts did not reach the end";
}

// list.seen is written first.
TEST_F(FleetList, IsOfferedAgainWhenThePowerWasCutBeforeItsAction) {
  publish(listOf(7));
  turns(1);
  std::filesystem::remove_all(folder_.path() + "/actions");
  restart();

  turns(2);

  EXPECT_EQ(action().ending, Ending::Success);
}

TEST_F(FleetList, IsDownloadedFromWhereItBroke) {
  ReleaseList list = listOf(7, std::string(60, '2'));
  publish(list);
  lab_.steer("switch", "{'cutAt': 30}");

  turns(3);

  EXPECT_EQ(action().ending, Ending::Success);
  EXPECT_EQ(lab_.countOf("range"), 1);
}

TEST_F(FleetList, TellsNobodyAndSaysSo) {
  publish(listOf(7));
  turns(2);

  const Json::Value status = fleet::statusOf(*agent_, configuration_, 0);

  EXPECT_EQ(status["list"].asString(), configuration_.list);
  EXPECT_FALSE(status.isMember("server"));
  ASSERT_EQ(status["actions"].size(), 1U);
  EXPECT_EQ(status["actions"][0]["state"], "success");
  EXPECT_FALSE(status["actions"][0].isMember("told"));
  EXPECT_THAT(fleet::textOf(status, 0), HasSubstr("List: http://127.0.0.1:"));
  EXPECT_EQ(lab_.requests("deploymentBase/feedback"), 0);
}

TEST_F(FleetList, AsksTheOwnerAsConfigured) {
  configuration_.consent = fleet::ConsentPolicy::Update;
  restart();
  publish(listOf(7));

  turns(3);

  EXPECT_EQ(action().ending, Ending::None);
  EXPECT_THAT(installer_.asked, IsEmpty());
}

}  // namespace
