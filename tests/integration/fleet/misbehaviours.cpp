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
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Misbehaviour {
  const char* name;
  const char* switches;  // of the server
  const char* state;     // of the action at the end
  const char* version;   // of the component
  int polls;             // of the first hour; -1: as usual
  const char* said;      // to the server of its end, otherwise on the set; empty: nothing is wrong for it
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

constexpr char kNoDocument[] = "The server's answer is no JSON document.";
constexpr char kNoLink[] = "The server's link \"deploymentBase\" is no address.";
constexpr char kNoIdentity[] = "The server's answer has no usable \"id\".";
constexpr char kNoSize[] = "The server does not say how large a.img of tunerfw is.";
constexpr char kNoHash[] = "The server gives no SHA-256 of a.img of tunerfw.";
constexpr char kNoAddress[] = "The server gives no address of a.img of tunerfw.";

// The answer to a poll that names a deployment there.
#define LINK(address) ", 'body': {'_links': {'deploymentBase': {'href': '" address "'}}}"
#define RELATIVE_LINK LINK("/DEFAULT/controller/v1/tv1/deploymentBase/1")

const Misbehaviour kMisbehaviours[] = {
    // To polls
    {"Poll401", ALWAYS("base", "401", ""), "running", "1.0", 3, "answered 401"},
    {"Poll403", ALWAYS("base", "403", ""), "running", "1.0", 3, "answered 403"},
    {"Poll404", ONCE("base", "404", ""), "finished", "2.0", -1, "answered 404"},
    {"Poll404ForEver", ALWAYS("base", "404", ""), "running", "1.0", 6, "answered 404"},
    {"Poll500", ONCE("base", "500", ""), "finished", "2.0", -1, "answered 500"},
    {"Poll500ForEver", ALWAYS("base", "500", ""), "running", "1.0", 6, "answered 500"},
    {"Poll503WithSeconds", ALWAYS("base", "503", ", 'headers': {'Retry-After': '1800'}"), "running", "1.0", 2,
     "answered 503"},
    {"Poll503WithADate",
     ALWAYS("base", "503", ", 'headers': {'Retry-After': 'Fri, 31 Dec 2060 23:59:59 GMT'}"), "running", "1.0",
     1, "answered 503"},
    {"Poll503WithNonsense", ALWAYS("base", "503", ", 'headers': {'Retry-After': 'soon'}"), "running", "1.0",
     6, "answered 503"},
    {"Poll429", ALWAYS("base", "429", ""), "running", "1.0", 6, "answered 429"},
    {"PollAnswersHtml",
     ONCE("base", "200", ", 'headers': {'Content-Type': 'text/html'}, 'body': '<html>log in</html>'"),
     "finished", "2.0", -1, kNoDocument},
    {"PollAnswersNothing", ONCE("base", "200", ", 'body': ''"), "finished", "2.0", -1, kNoDocument},
    {"PollIsCutOff", ONCE("base", "200", ", 'body': '{'"), "finished", "2.0", -1, kNoDocument},
    {"PollHasNoLinks", ONCE("base", "200", ", 'body': '{}'"), "finished", "2.0", -1, ""},
    {"PollIsAList", ONCE("base", "200", ", 'body': '[]'"), "finished", "2.0", -1, kNoDocument},
    {"PollIsLong", ONCE("base", "200", ", 'headers': {'Content-Length': '20000000'}, 'body': '{}'"),
     "finished", "2.0", -1, "larger than any document"},
    {"PollIsShorterThanSaid", ONCE("base", "200", ", 'headers': {'Content-Length': '9'}, 'body': '{}'"),
     "finished", "2.0", -1, "stopped after 2 bytes of the 9 bytes"},
    {"PollIsDeep", ONCE("base", "200", ", 'body': '[', 'bodyTimes': 10000"), "finished", "2.0", -1,
     kNoDocument},
    {"PollIsADeepDocument", ALWAYS("base", "200", ", 'body': '{\\'_links\\':', 'bodyTimes': 6000"), "running",
     "1.0", 6, kNoDocument},
    {"PollHasTwoLengths", ONCE("base", "200", ", 'headers': {'Content-Length': ['2', '3']}, 'body': '{}'"),
     "finished", "2.0", -1, "two different lengths"},
    {"PollHasALengthThatIsNone", ONCE("base", "200", ", 'headers': {'Content-Length': '-2'}, 'body': '{}'"),
     "finished", "2.0", -1, "a length that is no number"},
    {"PollHasALinkOfTheSameServerAlone", ALWAYS("base", "200", RELATIVE_LINK), "running", "1.0", 6, kNoLink},
    {"PollHasALinkToAFile", ALWAYS("base", "200", LINK("file:///etc/passwd")), "running", "1.0", 6, kNoLink},
    {"PollHasALinkWithALineFeed", ALWAYS("base", "200", LINK("http://h/\\n\\nx")), "running", "1.0", 6,
     kNoLink},
    {"PollIsRedirectedForEver",
     ALWAYS("base", "302", ", 'headers': {'Location': '/DEFAULT/controller/v1/tv1'}"), "running", "1.0", 6,
     "answered 302"},
    {"SleepIsZero", "{'sleep': '00:00:00'}", "finished", "2.0", 12, ""},
    {"SleepIsNoTime", "{'sleep': 'x'}", "finished", "2.0", 12, ""},
    {"SleepIsOneSecond", "{'sleep': '00:00:01'}", "finished", "2.0", 120, ""},
    {"SleepHasDays", "{'sleep': '1:00:00:00'}", "finished", "2.0", 1, ""},
    {"SleepIsEndless", "{'sleep': '99999:00:00'}", "finished", "2.0", 12, ""},
    {"SleepIsANumber", "{'sleep': 3000}", "finished", "2.0", 12, ""},
    {"AttributesAreRefused", ALWAYS("configData", "400", ""), "finished", "2.0", -1, ""},
    {"InstalledIsRefused", ALWAYS("installedBase", "500", ""), "finished", "2.0", -1, ""},
    // To documents
    {"Deployment404", ONCE("deploymentBase", "404", ""), "finished", "2.0", -1, "answered 404"},
    {"Deployment410", ONCE("deploymentBase", "410", ""), "finished", "2.0", -1, "answered 410"},
    {"Deployment500", ONCE("deploymentBase", "500", ""), "finished", "2.0", -1, "answered 500"},
    {"DeploymentIsNoDocument", ONCE("deploymentBase", "200", ", 'body': 'null'"), "finished", "2.0", -1,
     kNoDocument},
    {"DeploymentIsDeep", ONCE("deploymentBase", "200", ", 'body': '[', 'bodyTimes': 10000"), "finished",
     "2.0", -1, kNoDocument},
    {"IdentityIsAPath", "{'id': 'x/../1'}", "running", "1.0", -1, ""},
    {"IdentityIsLong", "{'id': '" LONG_NAME "'}", "running", "1.0", -1, kNoIdentity},
    {"IdentityHasALineFeed", "{'id': '1\\n'}", "running", "1.0", -1, kNoIdentity},
    // With artifacts
    {"SizeIsNegative", "{'artifact': {'size': -3}}", "error", "1.0", -1, kNoSize},
    {"SizeIsAText", "{'artifact': {'size': '3'}}", "error", "1.0", -1, kNoSize},
    {"SizeIsMissing", "{'artifact': {'size': null}}", "error", "1.0", -1, kNoSize},
    {"SizeIsTooSmall", "{'artifact': {'size': 2}}", "error", "1.0", -1, "has 3 bytes, and had announced 2."},
    {"SizeIsTooLarge", "{'artifact': {'size': 4}}", "error", "1.0", -1, "has 3 bytes, and had announced 4."},
    {"HashIsNone", "{'artifact': {'hashes': {'sha256': '2.0'}}}", "error", "1.0", -1, kNoHash},
    {"HashIsAPath",
     "{'artifact': {'hashes': {'sha256': "
     "'../../../../../../../../../../../../../../../../../../../../tmp/'}}}",
     "error", "1.0", -1, kNoHash},
    {"FileNameIsAPath", "{'artifact': {'filename': '../../../etc/passwd'}}", "finished", "2.0", -1, ""},
    {"AddressIsMissing", "{'artifact': {'_links': {}}}", "error", "1.0", -1, kNoAddress},
    {"AddressIsAFile", "{'artifact': {'_links': {'download': {'href': 'file:///etc/passwd'}}}}", "error",
     "1.0", -1, kNoAddress},
    {"AddressIsRelative", "{'artifact': {'_links': {'download': {'href': 'artifacts/1'}}}}", "error", "1.0",
     -1, kNoAddress},
    {"AddressesAreTwo", "{'links': 'both'}", "finished", "2.0", -1, ""},
    {"AddressIsOfTheOtherName", "{'links': 'https'}", "finished", "2.0", -1, ""},
    {"ArtifactHasTwoLengths",
     ONCE("softwaremodules", "200", ", 'headers': {'Content-Length': ['3', '4']}, 'body': '2.0'"), "finished",
     "2.0", -1, "two different lengths"},
    {"NoSha256", "{'hashes': false}", "error", "1.0", -1, kNoHash},
    {"WrongBytes", "{'wrongBytes': true}", "error", "1.0", -1,
     "The SHA-256 of what came begins with 02925afd44e2"},
    {"NoRanges", "{'ranges': false, 'cutAt': 1}", "finished", "2.0", -1, ""},
    {"CutOff", "{'cutAt': 1}", "finished", "2.0", -1, ""},
    {"CutOffAtOnce", "{'cutAt': 0}", "finished", "2.0", -1, "stopped after 0 bytes of the 3 bytes"},
    {"Artifact404", ONCE("softwaremodules", "404", ""), "finished", "2.0", -1, "answered 404"},
    {"Artifact404ForEver", ALWAYS("softwaremodules", "404", ""), "error", "1.0", -1, "answered 404"},
    {"Artifact401", ONCE("softwaremodules", "401", ""), "finished", "2.0", -1, "answered 401"},
    {"Artifact412", ONCE("softwaremodules", "412", ""), "finished", "2.0", -1, "answered 412"},
    {"Artifact416", ONCE("softwaremodules", "416", ""), "finished", "2.0", -1, "answered 416"},
    {"Artifact500", ONCE("softwaremodules", "500", ""), "finished", "2.0", -1, "answered 500"},
    {"ArtifactIsHtml",
     ALWAYS("softwaremodules", "200", ", 'headers': {'Content-Type': 'text/html'}, 'body': 'in'"), "running",
     "1.0", -1, "Something between the set and the server answered instead"},
    {"ArtifactIsLonger", ALWAYS("softwaremodules", "200", ", 'body': '2.0.0'"), "error", "1.0", -1,
     "has 5 bytes, and had announced 3."},
    {"ArtifactIsShorter", ALWAYS("softwaremodules", "200", ", 'body': '2.'"), "error", "1.0", -1,
     "has 2 bytes, and had announced 3."},
    {"ArtifactIsAnotherPart",
     ONCE("softwaremodules", "206", ", 'headers': {'Content-Range': 'bytes 1-2/3'}, 'body': '.0'"),
     "finished", "2.0", -1, ""},
    {"RedirectsForEver",
     ALWAYS("softwaremodules", "302",
            ", 'headers': {'Location': '/DEFAULT/controller/v1/tv1/softwaremodules/x'}"),
     "running", "1.0", -1, "redirects more than 5 times"},
    {"RedirectsToAFile", ALWAYS("softwaremodules", "302", ", 'headers': {'Location': 'file:///etc/passwd'}"),
     "running", "1.0", -1, "The connection to file:///etc/passwd is not protected."},
    // To feedback
    {"Feedback410", ONCE("deploymentBase/feedback", "410", ""), "finished", "2.0", -1, ""},
    {"Feedback410ForEver", ALWAYS("deploymentBase/feedback", "410", ""), "running", "1.0", -1, ""},
    {"Feedback404ForEver", ALWAYS("deploymentBase/feedback", "404", ""), "running", "1.0", -1, ""},
    {"Feedback400", ONCE("deploymentBase/feedback", "400", ""), "finished", "2.0", -1, ""},
    {"Feedback400ForEver", ALWAYS("deploymentBase/feedback", "400", ""), "running", "2.0", -1, ""},
    {"Feedback429", ONCE("deploymentBase/feedback", "429", ""), "finished", "2.0", -1, ""},
    {"Feedback429ForEver", ALWAYS("deploymentBase/feedback", "429", ""), "running", "2.0", -1,
     "answered 429"},
    {"FeedbackIsTakenAndNotAnswered", "{'mute': {'deploymentBase/feedback': 4}}", "finished", "2.0", -1,
     "hung up without an answer"},
    {"FeedbackIsTakenAndNotAnsweredForAWhile", "{'mute': {'deploymentBase/feedback': 8}}", "finished", "2.0",
     -1, "hung up without an answer"},
    {"Feedback500FiveTimes", ONCE("deploymentBase/feedback", "500", ", 'times': 5"), "finished", "2.0", -1,
     "answered 500"},
};

class FleetMisbehaviour : public FleetTest, public ::testing::WithParamInterface<Misbehaviour> {
 protected:
  void expectSaid(const std::string& said) const {
    if (lab_.stateOf() == "error") {
      EXPECT_THAT(lab_.messages(), Contains(HasSubstr(said)));
    } else if (said.empty()) {
      EXPECT_THAT(troubles_, IsEmpty());
    } else {
      EXPECT_THAT(troubles_, Contains(HasSubstr(said)));
    }
  }
};

TEST_P(FleetMisbehaviour, EndsAsItShould) {
  assign();
  lab_.steer("switch", GetParam().switches);

  hour();

  EXPECT_EQ(lab_.stateOf(), GetParam().state);
  EXPECT_EQ(versionOf("tunerfw"), GetParam().version);
  EXPECT_EQ(installer_.asked.size(), std::string(GetParam().version) == "2.0" ? 1U : 0U);
  if (GetParam().polls >= 0) {
    const int deviation = 1 + GetParam().polls / 10;
    EXPECT_NEAR(lab_.requests("base"), GetParam().polls, deviation);
  }
  const auto history = lab_.history();
  const auto isEnd = [](const std::string& entry) { return entry.rfind("closed", 0) == 0; };
  EXPECT_LE(std::count_if(history.begin(), history.end(), isEnd), 1);
  expectSaid(GetParam().said);
  if (lab_.stateOf() != "running") {
    EXPECT_TRUE(action().isReported);  // the set does not go on telling it
    EXPECT_EQ(action().ending,
              lab_.stateOf() == "finished" ? fleet::Ending::Success : fleet::Ending::Failure);
  }
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
