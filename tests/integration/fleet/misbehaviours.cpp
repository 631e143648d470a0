// SPDX-License-Identifier: Apache-2.0
// What servers do wrong: what the client does then, and what the server holds at the end.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

#include "documents.h"
#include "fleet-test.h"

namespace {

using ::testing::Contains;
using ::testing::IsEmpty;

struct Misbehaviour {
  const char* name;
  const char* switches;  // of the server
  const char* state;     // of the action at the end
  const char* version;   // of the component
  int polls;             // of the first hour; -1: as usual
};

std::ostream& operator<<(std::ostream& out, const Misbehaviour& one) {
  return out << one.name;
}

// An identity has 64 characters at most.
#define LONG_NAME "12345678901234567890123456789012345678901234567890123456789012345"

// An answer in the place of the right one, once.
#define ONCE(what, status, more) "{'answers': [{'what': '" what "', 'status': " status more "}]}"
// The same for ever.
#define ALWAYS(what, status, more) ONCE(what, status, ", 'times': 1000000" more)

// The answer to a poll that names a deployment there.
#define LINK(address) ", 'body': {'_links': {'deploymentBase': {'href': '" address "'}}}"
#define RELATIVE_LINK LINK("/DEFAULT/controller/v1/tv1/deploymentBase/1")

const Misbehaviour kMisbehaviours[] = {
    // To polls
    {"Poll401", ALWAYS("base", "401", ""), "running", "1.0", 3},
    {"Poll403", ALWAYS("base", "403", ""), "running", "1.0", 3},
    {"Poll404", ONCE("base", "404", ""), "finished", "2.0", -1},
    {"Poll404ForEver", ALWAYS("base", "404", ""), "running", "1.0", 6},
    {"Poll500", ONCE("base", "500", ""), "finished", "2.0", -1},
    {"Poll500ForEver", ALWAYS("base", "500", ""), "running", "1.0", 6},
    {"Poll503WithSeconds", ALWAYS("base", "503", ", 'headers': {'Retry-After': '1800'}"), "running", "1.0",
     2},
    {"Poll503WithADate",
     ALWAYS("base", "503", ", 'headers': {'Retry-After': 'Fri, 31 Dec 2060 23:59:59 GMT'}"), "running", "1.0",
     1},
    {"Poll503WithNonsense", ALWAYS("base", "503", ", 'headers': {'Retry-After': 'soon'}"), "running", "1.0",
     6},
    {"Poll429", ALWAYS("base", "429", ""), "running", "1.0", 6},
    {"PollAnswersHtml",
     ONCE("base", "200", ", 'headers': {'Content-Type': 'text/html'}, 'body': '<html>log in</html>'"),
     "finished", "2.0", -1},
    {"PollAnswersNothing", ONCE("base", "200", ", 'body': ''"), "finished", "2.0", -1},
    {"PollIsCutOff", ONCE("base", "200", ", 'body': '{'"), "finished", "2.0", -1},
    {"PollHasNoLinks", ONCE("base", "200", ", 'body': '{}'"), "finished", "2.0", -1},
    {"PollIsAList", ONCE("base", "200", ", 'body': '[]'"), "finished", "2.0", -1},
    {"PollIsLong", ONCE("base", "200", ", 'headers': {'Content-Length': '20000000'}, 'body': '{}'"),
     "finished", "2.0", -1},
    {"PollIsShorterThanSaid", ONCE("base", "200", ", 'headers': {'Content-Length': '9'}, 'body': '{}'"),
     "finished", "2.0", -1},
    {"PollIsDeep", ONCE("base", "200", ", 'body': '[', 'bodyTimes': 10000"), "finished", "2.0", -1},
    {"PollIsADeepDocument", ALWAYS("base", "200", ", 'body': '{\\'_links\\':', 'bodyTimes': 10000"),
     "running", "1.0", 6},
    {"PollHasTwoLengths", ONCE("base", "200", ", 'headers': {'Content-Length': ['2', '3']}, 'body': '{}'"),
     "finished", "2.0", -1},
    {"PollHasALengthThatIsNone", ONCE("base", "200", ", 'headers': {'Content-Length': '-2'}, 'body': '{}'"),
     "finished", "2.0", -1},
    {"PollHasALinkOfTheSameServerAlone", ALWAYS("base", "200", RELATIVE_LINK), "running", "1.0", 6},
    {"PollHasALinkToAFile", ALWAYS("base", "200", LINK("file:///etc/passwd")), "running", "1.0", 6},
    {"PollHasALinkWithALineFeed", ALWAYS("base", "200", LINK("http://h/\\n\\nx")), "running", "1.0", 6},
    {"PollIsRedirectedForEver",
     ALWAYS("base", "302", ", 'headers': {'Location': '/DEFAULT/controller/v1/tv1'}"), "running", "1.0", 6},
    {"SleepIsZero", "{'sleep': '00:00:00'}", "finished", "2.0", 12},
    {"SleepIsNoTime", "{'sleep': 'x'}", "finished", "2.0", 12},
    {"SleepIsOneSecond", "{'sleep': '00:00:01'}", "finished", "2.0", 120},
    {"SleepHasDays", "{'sleep': '1:00:00:00'}", "finished", "2.0", 1},
    {"SleepIsEndless", "{'sleep': '99999:00:00'}", "finished", "2.0", 12},
    {"SleepIsANumber", "{'sleep': 300}", "finished", "2.0", 12},
    {"AttributesAreRefused", ALWAYS("configData", "400", ""), "finished", "2.0", -1},
    {"InstalledIsRefused", ALWAYS("installedBase", "500", ""), "finished", "2.0", -1},
    // To documents
    {"Deployment404", ONCE("deploymentBase", "404", ""), "finished", "2.0", -1},
    {"Deployment410", ONCE("deploymentBase", "410", ""), "finished", "2.0", -1},
    {"Deployment500", ONCE("deploymentBase", "500", ""), "finished", "2.0", -1},
    {"DeploymentIsNoDocument", ONCE("deploymentBase", "200", ", 'body': 'null'"), "finished", "2.0", -1},
    {"DeploymentIsDeep", ONCE("deploymentBase", "200", ", 'body': '[', 'bodyTimes': 10000"), "finished",
     "2.0", -1},
    {"IdentityIsAPath", "{'id': 'x/../1'}", "running", "1.0", -1},
    {"IdentityIsLong", "{'id': '" LONG_NAME "'}", "running", "1.0", -1},
    {"IdentityHasALineFeed", "{'id': '1\\n'}", "running", "1.0", -1},
    // With artifacts
    {"SizeIsNegative", "{'artifact': {'size': -3}}", "error", "1.0", -1},
    {"SizeIsAText", "{'artifact': {'size': '3'}}", "error", "1.0", -1},
    {"SizeIsMissing", "{'artifact': {'size': null}}", "error", "1.0", -1},
    {"SizeIsTooSmall", "{'artifact': {'size': 2}}", "error", "1.0", -1},
    {"SizeIsTooLarge", "{'artifact': {'size': 4}}", "error", "1.0", -1},
    {"HashIsNone", "{'artifact': {'hashes': {'sha256': '2.0'}}}", "error", "1.0", -1},
    {"HashIsAPath",
     "{'artifact': {'hashes': {'sha256': "
     "'../../../../../../../../../../../../../../../../../../../../tmp/'}}}",
     "error", "1.0", -1},
    {"FileNameIsAPath", "{'artifact': {'filename': '../../../etc/passwd'}}", "finished", "2.0", -1},
    {"AddressIsMissing", "{'artifact': {'_links': {}}}", "error", "1.0", -1},
    {"AddressIsAFile", "{'artifact': {'_links': {'download': {'href': 'file:///etc/passwd'}}}}", "error",
     "1.0", -1},
    {"AddressIsRelative", "{'artifact': {'_links': {'download': {'href': 'artifacts/1'}}}}", "error", "1.0",
     -1},
    {"AddressesAreTwo", "{'links': 'both'}", "finished", "2.0", -1},
    {"AddressIsOfTheOtherName", "{'links': 'https'}", "finished", "2.0", -1},
    {"ArtifactHasTwoLengths",
     ONCE("softwaremodules", "200", ", 'headers': {'Content-Length': ['3', '4']}, 'body': '2.0'"), "finished",
     "2.0", -1},
    {"NoSha256", "{'hashes': false}", "error", "1.0", -1},
    {"WrongBytes", "{'wrongBytes': true}", "error", "1.0", -1},
    {"NoRanges", "{'ranges': false, 'cutAt': 1}", "finished", "2.0", -1},
    {"CutOff", "{'cutAt': 1}", "finished", "2.0", -1},
    {"CutOffAtOnce", "{'cutAt': 0}", "finished", "2.0", -1},
    {"Artifact404", ONCE("softwaremodules", "404", ""), "finished", "2.0", -1},
    {"Artifact404ForEver", ALWAYS("softwaremodules", "404", ""), "error", "1.0", -1},
    {"Artifact401", ONCE("softwaremodules", "401", ""), "finished", "2.0", -1},
    {"Artifact412", ONCE("softwaremodules", "412", ""), "finished", "2.0", -1},
    {"Artifact416", ONCE("softwaremodules", "416", ""), "finished", "2.0", -1},
    {"Artifact500", ONCE("softwaremodules", "500", ""), "finished", "2.0", -1},
    {"ArtifactIsHtml",
     ALWAYS("softwaremodules", "200", ", 'headers': {'Content-Type': 'text/html'}, 'body': 'in'"), "running",
     "1.0", -1},
    {"ArtifactIsLonger", ALWAYS("softwaremodules", "200", ", 'body': '2.0.0'"), "error", "1.0", -1},
    {"ArtifactIsShorter", ALWAYS("softwaremodules", "200", ", 'body': '2.'"), "error", "1.0", -1},
    {"ArtifactIsAnotherPart",
     ONCE("softwaremodules", "206", ", 'headers': {'Content-Range': 'bytes 1-2/3'}, 'body': '.0'"),
     "finished", "2.0", -1},
    {"RedirectsForEver",
     ALWAYS("softwaremodules", "302",
            ", 'headers': {'Location': '/DEFAULT/controller/v1/tv1/softwaremodules/x'}"),
     "running", "1.0", -1},
    {"RedirectsToAFile", ALWAYS("softwaremodules", "302", ", 'headers': {'Location': 'file:///etc/passwd'}"),
     "running", "1.0", -1},
    // To feedback
    {"Feedback410", ONCE("deploymentBase/feedback", "410", ""), "finished", "2.0", -1},
    {"Feedback410ForEver", ALWAYS("deploymentBase/feedback", "410", ""), "running", "1.0", -1},
    {"Feedback404ForEver", ALWAYS("deploymentBase/feedback", "404", ""), "running", "1.0", -1},
    {"Feedback400", ONCE("deploymentBase/feedback", "400", ""), "finished", "2.0", -1},
    {"Feedback400ForEver", ALWAYS("deploymentBase/feedback", "400", ""), "running", "2.0", -1},
    {"Feedback429", ONCE("deploymentBase/feedback", "429", ""), "finished", "2.0", -1},
    {"FeedbackIsTakenAndNotAnswered", "{'mute': {'deploymentBase/feedback': 4}}", "finished", "2.0", -1},
    {"FeedbackIsTakenAndNotAnsweredForAWhile", "{'mute': {'deploymentBase/feedback': 8}}", "finished", "2.0",
     -1},
    {"Feedback500FiveTimes", ONCE("deploymentBase/feedback", "500", ", 'times': 5"), "finished", "2.0", -1},
};

class FleetMisbehaviour : public FleetTest, public ::testing::WithParamInterface<Misbehaviour> {};

TEST_P(FleetMisbehaviour, EndsAsItShould) {
  assign();
  lab_.steer("switch", GetParam().switches);

  hour();

  EXPECT_EQ(lab_.stateOf(), GetParam().state);
  EXPECT_EQ(versionOf("tunerfw"), GetParam().version);
  EXPECT_EQ(installer_.asked.size(), std::string(GetParam().version) == "2.0" ? 1U : 0U);
  if (GetParam().polls >= 0) {
    EXPECT_NEAR(lab_.requests("base"), GetParam().polls, 1 + GetParam().polls / 10);
  }
  const auto history = lab_.history();
  const auto isEnd = [](const std::string& entry) { return entry.rfind("closed", 0) == 0; };
  EXPECT_LE(std::count_if(history.begin(), history.end(), isEnd), 1);
}

INSTANTIATE_TEST_SUITE_P(OfServers, FleetMisbehaviour, ::testing::ValuesIn(kMisbehaviours),
                         [](const auto& row) { return std::string(row.param.name); });

// Actions that nobody can carry out.
struct WrongAction {
  const char* name;
  std::string (*chunks)();
  const char* sentence;  // that the server is told
};

std::ostream& operator<<(std::ostream& out, const WrongAction& one) {
  return out << one.name;
}

std::string chunk(const std::string& name, const std::string& version = "2.0",
                  const std::string& files = "'a.img': '2.0'") {
  return "{'name': '" + name + "', 'version': '" + version + "', 'files': {" + files + "}}";
}

std::string manyChunks() {
  std::string chunks = chunk("tunerfw");
  for (std::size_t number = 1; number <= fleet::ddi::kMostChunks; ++number) {
    chunks += ", " + chunk("fw" + std::to_string(number));
  }
  return chunks;
}

std::string manyArtifacts() {
  std::string files = "'info.json': '{}'";
  for (std::size_t number = 1; number <= fleet::ddi::kMostArtifacts; ++number) {
    files += ", '" + std::to_string(number) + "': 'x'";
  }
  return chunk("tunerfw", "2.0", files);
}

constexpr WrongAction kWrongActions[] = {
    {"HasNoModules", [] { return std::string(); }, "The action has no software modules."},
    {"HasTooManyModules", manyChunks, "The action has more than 100 software modules."},
    {"HasTooManyArtifacts", manyArtifacts, "tunerfw has more than 50 artifacts."},
    {"HasAModuleTwice", [] { return chunk("tunerfw") + ", " + chunk("tunerfw"); },
     "tunerfw stands in the action twice."},
    {"HasAModuleWithoutAName", [] { return chunk("tunerfw") + ", " + chunk(""); },
     "A software module of the action has no name or no version."},
    {"HasAModuleWithoutAVersion", [] { return chunk("tunerfw", ""); },
     "A software module of the action has no name or no version."},
    {"HasAModuleWithoutArtifacts", [] { return chunk("tunerfw", "2.0", ""); }, "tunerfw has no artifacts."},
    {"HasAnArtifactWithoutAName", [] { return chunk("tunerfw", "2.0", "'': 'x'"); },
     "An artifact of tunerfw has no file name."},
    {"HasAnEmptyArtifact", [] { return chunk("tunerfw", "2.0", "'a.img': ''"); },
     "The server does not say how large a.img of tunerfw is."},
    {"HasAModuleThatTheSetDoesNotHave", [] { return chunk("tunerfw") + ", " + chunk("otherfw"); },
     "The set has no component otherfw."},
    {"HasAModuleWithTheNameOfAPath", [] { return chunk("../tunerfw"); },
     "The set has no component ../tunerfw."},
    {"HasAModuleWithAControlCharacterInItsName", [] { return chunk("tuner\\u001B[2Jfw"); },
     "The set has no component tuner\\x1B[2Jfw."},
    {"HasAModuleWithAnEndInItsName", [] { return chunk("tunerfw\\u0000"); },
     "The set has no component tunerfw\\x00."},
};

class FleetMisbehaviourOfActions : public FleetTest, public ::testing::WithParamInterface<WrongAction> {};

TEST_P(FleetMisbehaviourOfActions, FailWithASentenceBeforeAnythingIsDownloaded) {
  lab_.steer("assign", "{'set': 'tv1', 'chunks': [" + GetParam().chunks() + "]}");

  turns(3);

  EXPECT_EQ(lab_.stateOf(), "error");
  EXPECT_THAT(lab_.messages(), Contains(GetParam().sentence));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_THAT(installer_.asked, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(OfServers, FleetMisbehaviourOfActions, ::testing::ValuesIn(kWrongActions),
                         [](const auto& row) { return std::string(row.param.name); });

// Documents that announce more than they may have.
struct Limit {
  const char* name;
  const char* what;
  std::int64_t bytes;
  const char* assigned;  // more of the action
};

std::ostream& operator<<(std::ostream& out, const Limit& one) {
  return out << one.name;
}

constexpr std::int64_t kShort = 64 << 10, kLong = 1 << 20;
constexpr Limit kLimits[] = {
    {"Poll", "base", kShort, ""},
    {"Deployment", "deploymentBase", kLong, ""},
    {"Confirmation", "confirmationBase", kLong, ", 'confirm': true"},
    {"Cancellation", "cancelAction", kShort, ""},
};

class FleetMisbehaviourOfSizes : public FleetTest, public ::testing::WithParamInterface<Limit> {
 protected:
  std::string troubleWith(std::int64_t bytes) {
    lab_.steer("switch", "{'answers': [{'what': '" + std::string(GetParam().what) +
                             "', 'status': 200, 'headers': {'Content-Length': '" + std::to_string(bytes) +
                             "'}, 'body': '{}'}]}");
    turns(1);
    return agent_->trouble();
  }
};

TEST_P(FleetMisbehaviourOfSizes, AreRefusedAboveWhatTheDocumentMayHave) {
  assign(GetParam().assigned);
  if (GetParam().name == std::string("Cancellation")) {
    lab_.steer("cancel", "{'set': 'tv1'}");
  }

  EXPECT_EQ(troubleWith(GetParam().bytes + 1), "The server's answer is larger than any document of its.");
  EXPECT_EQ(troubleWith(GetParam().bytes), "The server stopped after 2 bytes of the " +
                                               std::to_string(GetParam().bytes) +
                                               " bytes that it had announced.");
}

INSTANTIATE_TEST_SUITE_P(OfServers, FleetMisbehaviourOfSizes, ::testing::ValuesIn(kLimits),
                         [](const auto& row) { return std::string(row.param.name); });

// Servers that go on waiting. Whatever else takes long here is asked for again.
class FleetMisbehaviourInTime : public FleetTest {
 protected:
  FleetMisbehaviourInTime() {
    configuration_.stallSeconds = 2;
    restart();
  }
};

TEST_F(FleetMisbehaviourInTime, GoesOnWhereAnArtifactStalled) {
  lab_.steer("switch", "{'stallAt': 150000}");
  assignLarge();

  hour();

  EXPECT_GE(lab_.countOf("range"), 1);
  EXPECT_EQ(installer_.asked.size(), 1U);
}

TEST_F(FleetMisbehaviourInTime, AsksAgainWhereHeadersDoNotCome) {
  lab_.steer("switch",
             "{'answers': [{'what': 'base', 'status': 200, 'holds': true}, "
             "{'what': 'deploymentBase', 'status': 200, 'holds': true}, "
             "{'what': 'softwaremodules', 'status': 200, 'holds': true}]}");
  assign();

  hour();

  EXPECT_EQ(lab_.stateOf(), "finished");
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
}

// No faster than twice the limit, however long it takes.
TEST_F(FleetMisbehaviourInTime, TakesNoMoreOfAFastServerThanItsLimit) {
  configuration_.stallSeconds = 30;
  configuration_.bytesPerSecond = 102400;
  restart();
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '" +
                 std::string(400000, 'x') + "'}}]}");
  const auto begin = std::chrono::steady_clock::now();

  turns(2);

  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  ASSERT_EQ(installer_.asked.size(), 1U);
  EXPECT_LE(400000 / seconds.count(), 2 * 102400.0);
}

}  // namespace
