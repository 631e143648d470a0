// SPDX-License-Identifier: Apache-2.0
#include "documents.h"

#include <gmock/gmock.h>

namespace {

using fleet::ddi::Handling;
using fleet::ddi::parseCancel;
using fleet::ddi::parseConfirmation;
using fleet::ddi::parseDeployment;
using fleet::ddi::parsePoll;
using fleet::ddi::parseSleep;
using fleet::ddi::Unreadable;
using fleet::ddi::Window;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// A SHA-256.
std::string someDigits() {
  return "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
}

std::string artifactText(const std::string& links = R"({"download":{"href":"https://s/a"}})") {
  return R"({"filename":"tuner.img","size":4096,"hashes":{"sha1":"x","sha256":")" + someDigits() +
         R"("},"_links":)" + links + "}";
}

std::string chunkText(const std::string& name, const std::string& artifacts) {
  return R"({"part":"bApp","name":")" + name + R"(","version":"2.0","artifacts":[)" + artifacts + "]}";
}

std::string deploymentText(const std::string& chunks, const std::string& more = "") {
  return R"({"id":"12","deployment":{"download":"attempt","update":"forced",)" + more + R"("chunks":[)" +
         chunks + "]}}";
}

std::string pollText(const std::string& links) {
  return R"({"config":{"polling":{"sleep":"00:05:00"}},"_links":{)" + links + "}}";
}

TEST(FleetPoll, TellsTheIntervalAndWhatIsWanted) {
  const auto poll = parsePoll(pollText(
      R"("deploymentBase":{"href":"https://s/d/1?c=7"},"cancelAction":{"href":"https://s/c"},
         "confirmationBase":{"href":"https://s/o"},"installedBase":{"href":"https://s/i"},
         "configData":{"href":"http://s/f"})"));

  EXPECT_EQ(poll.sleep, std::chrono::minutes(5));
  EXPECT_EQ(poll.deployment, "https://s/d/1?c=7");
  EXPECT_EQ(poll.cancel, "https://s/c");
  EXPECT_EQ(poll.confirmation, "https://s/o");
  EXPECT_EQ(poll.installed, "https://s/i");
  EXPECT_EQ(poll.configData, "http://s/f");
}

TEST(FleetPoll, WantsNothingWithoutLinks) {
  const auto poll = parsePoll(R"({"unknown":[1]})");

  EXPECT_FALSE(poll.sleep.has_value());
  EXPECT_EQ(poll.deployment + poll.cancel + poll.confirmation + poll.installed + poll.configData, "");
}

TEST(FleetPoll, RefusesALinkThatIsNoAddress) {
  for (const char* address :
       {"/relative", "file:///etc/passwd", "https://s/a b", "https://s/\\u0001", "", "ftp://s"}) {
    EXPECT_THROW(parsePoll(pollText(R"("deploymentBase":{"href":")" + std::string(address) + "\"}")),
                 Unreadable)
        << address;
  }
  EXPECT_THROW(parsePoll(pollText(R"("cancelAction":"https://s/c")")), Unreadable);
}

TEST(FleetPoll, RefusesALinkThatIsLong) {
  const auto poll = [](std::size_t length) {
    const std::string begin = "https://s/";
    return pollText(R"("installedBase":{"href":")" + begin + std::string(length - begin.size(), 'a') + "\"}");
  };

  EXPECT_THAT(parsePoll(poll(2048)).installed, SizeIs(2048));
  EXPECT_THROW(parsePoll(poll(2049)), Unreadable);
}

TEST(FleetDocuments, AreJsonObjectsAndNothingElse) {
  for (const std::string text :
       {"", "<html>Sign in</html>", "[]", "null", "\"x\"", "{", "{} {}", "{\"a\":1,\"a\":2}"}) {
    EXPECT_THROW(parsePoll(text), Unreadable) << text;
    EXPECT_THROW(parseDeployment(text), Unreadable) << text;
    EXPECT_THROW(parseCancel(text), Unreadable) << text;
  }
}

TEST(FleetDocuments, AreNeitherTooDeepNorTooLarge) {
  const std::string deep(100000, '[');
  const std::string notShort = std::string(fleet::ddi::kLargestShortDocument, ' ') + "{}";
  const std::string large = std::string(fleet::ddi::kLargestDocument, ' ') + deploymentText("");
  const std::string cancel = R"({"cancelAction":{"stopId":"12"}})";
  const std::string longCancel = std::string(fleet::ddi::kLargestShortDocument - cancel.size(), ' ') + cancel;

  EXPECT_THROW(parsePoll("{\"a\":" + deep), Unreadable);
  EXPECT_NO_THROW(parsePoll(notShort.substr(2)));
  EXPECT_THROW(parsePoll(notShort), Unreadable);
  EXPECT_EQ(parseCancel(longCancel), "12");
  EXPECT_THROW(parseCancel(" " + longCancel), Unreadable);
  EXPECT_NO_THROW(parseDeployment(large.substr(deploymentText("").size())));
  EXPECT_THROW(parseDeployment(large), Unreadable);
}

// Whole in everything but their depth.
TEST(FleetDocuments, HaveLevelsThatCanBeRead) {
  const auto nested = [](std::size_t levels) {
    return "{\"a\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
  };

  EXPECT_NO_THROW(parsePoll(nested(60)));
  EXPECT_THROW(parsePoll(nested(70)), Unreadable);
  EXPECT_THROW(parseDeployment(nested(10000)), Unreadable);
}

// Each takes many times the room of its text.
TEST(FleetDocuments, HaveNoMoreValuesThanTheyNeed) {
  const auto sentenceOf = [](const std::string& values) -> std::string {
    try {
      parseDeployment("{\"a\":" + values + "}");
    } catch (const Unreadable& failure) {
      return failure.what();
    }
    return "";
  };
  const auto many = [](const char* value, int times) {
    std::string values = "[";
    for (int number = 0; number < times; ++number) {
      values += value;
    }
    return values + "0]";
  };

  EXPECT_EQ(sentenceOf(many("0,", 65537)), "The server's answer is larger than any document of its.");
  EXPECT_EQ(sentenceOf(many("[],", 32769)), "The server's answer is larger than any document of its.");
  EXPECT_EQ(sentenceOf(many("{},", 32769)), "The server's answer is larger than any document of its.");
  EXPECT_EQ(sentenceOf(many("0,", 65000)), "The server's answer has no usable \"id\".");
  EXPECT_EQ(sentenceOf("\"\\\"" + std::string(70000, ',') + "\""),
            "The server's answer has no usable \"id\".");
}

TEST(FleetDeployment, HasNoNamesThatAreLong) {
  const std::string longest(fleet::ddi::kLongestName, 'n');
  const auto versionText = [](const std::string& version) {
    std::string text = chunkText("tunerfw", artifactText());
    return text.replace(text.find("2.0"), 3, version);
  };

  const auto fileText = [](const std::string& name) {
    std::string text = chunkText("tunerfw", artifactText());
    return text.replace(text.find("tuner.img"), 9, name);
  };

  for (const std::string& chunk :
       {chunkText(longest, artifactText()), versionText(longest), fileText(longest)}) {
    EXPECT_EQ(parseDeployment(deploymentText(chunk)).problem, "");
  }
  for (const std::string& chunk :
       {chunkText(longest + "n", artifactText()), versionText(longest + "n"), fileText(longest + "n")}) {
    const auto deployment = parseDeployment(deploymentText(chunk));
    EXPECT_EQ(deployment.problem, "A name or a version in the action has more than 256 bytes.");
    EXPECT_THAT(deployment.chunks, IsEmpty());
  }
}

TEST(FleetSleep, IsHoursMinutesAndSecondsAndPerhapsDays) {
  using std::chrono::seconds;
  EXPECT_EQ(parseSleep("00:00:30"), seconds(30));
  EXPECT_EQ(parseSleep("1:02:03"), seconds(3723));
  EXPECT_EQ(parseSleep("24:00:00"), seconds(86400));
  EXPECT_EQ(parseSleep("1:00:00:00"), seconds(86400));
  EXPECT_EQ(parseSleep("10:23:59:59"), seconds(11 * 86400 - 1));
}

TEST(FleetSleep, IsNoneWhenItIsZeroOrUnreadable) {
  for (const char* text :
       {"",          "00:00:00",   "0:00:00:00", "5",           "00:05",        "00:60:00",
        "00:00:60",  "1:24:00:00", "-1:00:00",   "00:-1:00",    "+1:00:00",     "00:05:00 ",
        " 00:05:00", "00:05:0x",   "1:1:1:1:1",  "99999:00:00", "366:00:00:00", "99999999999999999999:00:00",
        "::",        ":::",        "HH:MM:SS"}) {
    EXPECT_FALSE(parseSleep(text).has_value()) << text;
  }
}

TEST(FleetDeployment, HasEveryChunkAndArtifactInTheServersOrder) {
  const auto deployment =
      parseDeployment(deploymentText(chunkText("tunerfw", artifactText() + "," + artifactText()) + "," +
                                         chunkText("panelfw", artifactText()),
                                     R"("maintenanceWindow":"available",)"));

  EXPECT_EQ(deployment.id, "12");
  EXPECT_EQ(deployment.download, Handling::Attempt);
  EXPECT_EQ(deployment.update, Handling::Forced);
  EXPECT_EQ(deployment.window, Window::Available);
  EXPECT_EQ(deployment.problem, "");
  ASSERT_THAT(deployment.chunks, SizeIs(2));
  EXPECT_EQ(deployment.chunks[0].name, "tunerfw");
  EXPECT_EQ(deployment.chunks[0].version, "2.0");
  EXPECT_EQ(deployment.chunks[1].name, "panelfw");
  ASSERT_THAT(deployment.chunks[0].artifacts, SizeIs(2));
  const auto& artifact = deployment.chunks[0].artifacts[0];
  EXPECT_EQ(artifact.fileName, "tuner.img");
  EXPECT_EQ(artifact.size, 4096);
  EXPECT_EQ(artifact.sha256, someDigits());
  EXPECT_EQ(artifact.address, "https://s/a");
}

TEST(FleetDeployment, TakesAnUnknownWordForOneThatAllowsNothing) {
  const auto deployment =
      parseDeployment(R"({"id":"1","deployment":{"download":"now","maintenanceWindow":"soon","chunks":[]}})");

  EXPECT_EQ(deployment.download, Handling::Skip);
  EXPECT_EQ(deployment.update, Handling::Skip);
  EXPECT_EQ(deployment.window, Window::Unavailable);
}

TEST(FleetDeployment, HasNoWindowUnlessTheServerTellsOne) {
  EXPECT_EQ(parseDeployment(deploymentText("")).window, Window::None);
  EXPECT_EQ(parseDeployment(deploymentText("", R"("maintenanceWindow":null,)")).window, Window::None);
  EXPECT_EQ(parseDeployment(deploymentText("", R"("maintenanceWindow":7,)")).window, Window::Unavailable);
}

TEST(FleetDeployment, TakesTheFirstAddressThatThereIs) {
  const auto addressOf = [](const std::string& links) {
    return parseDeployment(deploymentText(chunkText("t", artifactText(links))))
        .chunks.at(0)
        .artifacts.at(0)
        .address;
  };

  EXPECT_EQ(addressOf(R"({"download-http":{"href":"http://s/b"}})"), "http://s/b");
  EXPECT_EQ(addressOf(R"({"download-http":{"href":"http://s/b"},"download":{"href":"https://s/a"}})"),
            "https://s/a");
  EXPECT_EQ(addressOf(R"({"download":{"href":"file:///a"}})"), "");
}

TEST(FleetDeployment, ComparesHashesInSmallDigits) {
  std::string text = deploymentText(chunkText("t", artifactText()));
  text.replace(text.find("abcdef"), 6, "ABCDEF");

  EXPECT_EQ(parseDeployment(text).chunks.at(0).artifacts.at(0).sha256, someDigits());
}

TEST(FleetDeployment, IsRefusedByASentenceWhenItCannotBeDone) {
  const auto problemOf = [](const std::string& chunks) {
    return parseDeployment(deploymentText(chunks)).problem;
  };
  const auto without = [](const std::string& what) {
    std::string text = artifactText();
    text.replace(text.find(what), what.size(), "\"other\"");
    return chunkText("t", text);
  };
  const auto sized = [](const std::string& size) {
    std::string text = artifactText();
    text.replace(text.find("4096"), 4, size);
    return chunkText("t", text);
  };

  EXPECT_EQ(problemOf(""), "The action has no software modules.");
  EXPECT_EQ(problemOf("7"), "A software module of the action has no name or no version.");
  EXPECT_EQ(problemOf(chunkText("t", "")), "t has no artifacts.");
  EXPECT_EQ(problemOf(chunkText("t", "7")), "An artifact of t has no file name.");
  EXPECT_EQ(problemOf(without("\"sha256\"")), "The server gives no SHA-256 of tuner.img of t.");
  EXPECT_EQ(problemOf(without("\"_links\"")), "The server gives no address of tuner.img of t.");
  for (const char* size : {"-1", "0", "4096.5", "\"4096\"", "null", "1e300", "9007199254740993"}) {
    EXPECT_EQ(problemOf(sized(size)), "The server does not say how large tuner.img of t is.") << size;
  }
  EXPECT_EQ(problemOf(chunkText("t", artifactText()) + "," + chunkText("t", artifactText())),
            "t stands in the action twice.");
}

TEST(FleetDeployment, HasALimitedNumberOfChunksAndArtifacts) {
  std::string chunks;
  for (std::size_t number = 0; number <= fleet::ddi::kMostChunks; ++number) {
    chunks += (number > 0 ? "," : "") + chunkText("t" + std::to_string(number), artifactText());
  }
  std::string artifacts = artifactText();
  for (std::size_t number = 0; number < fleet::ddi::kMostArtifacts; ++number) {
    artifacts += "," + artifactText();
  }

  EXPECT_EQ(parseDeployment(deploymentText(chunks)).problem,
            "The action has more than 100 software modules.");
  EXPECT_EQ(parseDeployment(deploymentText(chunks.substr(0, chunks.rfind(",{\"part\"")))).problem, "");
  EXPECT_EQ(parseDeployment(deploymentText(chunkText("t", artifacts))).problem,
            "t has more than 50 artifacts.");
}

TEST(FleetDeployment, ShowsNothingThatATerminalWouldObey) {
  const auto deployment = parseDeployment(deploymentText(chunkText("t\\u001b[2J", artifactText())));

  EXPECT_EQ(deployment.chunks.at(0).name, "t\\x1B[2J");
}

TEST(FleetDeployment, HasAnIdentityThatIsKeptAsItIs) {
  const auto idOf = [](const std::string& id) {
    return parseDeployment(R"({"id":)" + id + R"(,"deployment":{"chunks":[]}})").id;
  };

  EXPECT_EQ(idOf("\"../12\""), "../12");
  EXPECT_EQ(idOf("12"), "12");
  EXPECT_EQ(idOf("\"" + std::string(64, 'a') + "\""), std::string(64, 'a'));
  for (const std::string& id :
       {std::string("\"\""), std::string("null"), std::string("{}"), std::string("1.5"),
        std::string("\"a b\""), std::string("\"\\u0000\""), "\"" + std::string(65, 'a') + "\""}) {
    EXPECT_THROW(idOf(id), Unreadable) << id;
  }
}

TEST(FleetConfirmation, IsADeploymentUnderItsOwnName) {
  const std::string text = R"({"id":"4","confirmation":{"download":"forced","update":"skip","chunks":[)" +
                           chunkText("t", artifactText()) + "]}}";

  const auto wanted = parseConfirmation(text);

  EXPECT_EQ(wanted.id, "4");
  EXPECT_EQ(wanted.download, Handling::Forced);
  EXPECT_THAT(wanted.problem, IsEmpty());
  EXPECT_THROW(parseDeployment(text), Unreadable);
}

TEST(FleetCancel, NamesTheActionToBeStopped) {
  EXPECT_EQ(parseCancel(R"({"id":"7","cancelAction":{"stopId":"12"}})"), "12");
  EXPECT_EQ(parseCancel(R"({"cancelAction":{"stopId":12}})"), "12");
  EXPECT_THROW(parseCancel(R"({"id":"7"})"), Unreadable);
  EXPECT_THROW(parseCancel(R"({"cancelAction":[]})"), Unreadable);
}

}  // namespace
