// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "token.h"

namespace {

using fleet::ConfirmPolicy;
using fleet::ConsentPolicy;
using fleet::parseConfiguration;
using fleet::readToken;
using fleet::TokenType;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kEnough[] = "server = https://s\ncontroller = tv1\n";

std::vector<std::string> problemsOf(const std::string& content) {
  std::vector<std::string> texts;
  for (const auto& problem : parseConfiguration(content).problems) {
    texts.push_back(textOf(problem, "f"));
  }
  return texts;
}

TEST(FleetConfiguration, NeedsOnlyAServerAndAName) {
  const auto read = parseConfiguration(kEnough);

  EXPECT_THAT(read.problems, IsEmpty());
  const fleet::Configuration& configuration = read.configuration;
  EXPECT_EQ(configuration.server, "https://s");
  EXPECT_EQ(configuration.controller, "tv1");
  EXPECT_EQ(configuration.tenant, "DEFAULT");
  EXPECT_EQ(configuration.tokenType, TokenType::None);
  EXPECT_EQ(configuration.poll, std::chrono::minutes(5));
  EXPECT_EQ(configuration.consent, ConsentPolicy::Never);
  EXPECT_EQ(configuration.confirm, ConfirmPolicy::Ask);
  EXPECT_EQ(configuration.bytesPerSecond, 0);
  EXPECT_EQ(configuration.largestArtifact, 536870912);
  EXPECT_EQ(configuration.largestAction, 2147483648);
  EXPECT_FALSE(configuration.allowInsecure);
}

TEST(FleetConfiguration, TakesEverySetting) {
  const auto read = parseConfiguration(
      "server = http://s:8080/updates/\ntenant = maker\ncontroller = tv1\ntoken-type = gateway\n"
      "token-file = /etc/t\nca-file = /etc/ca\nclient-certificate = /etc/c\nclient-key = /etc/k\n"
      "allow-insecure = yes\npoll = 60\nconsent = download\nconfirm = no\nrate-limit = 100\nmax-size = 2\n"
      "max-action = 3\nserial = SN 0815/4\n");

  EXPECT_THAT(read.problems, IsEmpty());
  const fleet::Configuration& configuration = read.configuration;
  EXPECT_EQ(configuration.server, "http://s:8080/updates");
  EXPECT_EQ(configuration.tenant, "maker");
  EXPECT_EQ(configuration.tokenType, TokenType::Gateway);
  EXPECT_EQ(configuration.tokenFile, "/etc/t");
  EXPECT_EQ(configuration.caFile, "/etc/ca");
  EXPECT_EQ(configuration.clientCertificate, "/etc/c");
  EXPECT_EQ(configuration.clientKey, "/etc/k");
  EXPECT_TRUE(configuration.allowInsecure);
  EXPECT_EQ(configuration.poll, std::chrono::seconds(60));
  EXPECT_EQ(configuration.consent, ConsentPolicy::Download);
  EXPECT_EQ(configuration.confirm, ConfirmPolicy::No);
  EXPECT_EQ(configuration.bytesPerSecond, 102400);
  EXPECT_EQ(configuration.largestArtifact, 2097152);
  EXPECT_EQ(configuration.largestAction, 3145728);
  EXPECT_EQ(configuration.serial, "SN 0815/4");
}

TEST(FleetConfiguration, AllowsAnActionFourArtifactsOfTheLargestSizeWhereItHasNoLimit) {
  EXPECT_EQ(parseConfiguration(std::string(kEnough) + "max-size = 1\n").configuration.largestAction, 4194304);
  EXPECT_EQ(parseConfiguration(std::string(kEnough) + "max-size = 1048576\n").configuration.largestAction,
            4398046511104);
}

TEST(FleetConfiguration, NamesEveryWrongEntryByItsLine) {
  EXPECT_THAT(
      problemsOf("server = ftp://s\ntenant = a/b\ncontroller = \ntoken-type = secret\ntoken-file = t\n"
                 "allow-insecure = maybe\npoll = 29\nconsent = always\nconfirm = perhaps\nrate-limit = -1\n"
                 "max-size = 0\nalone\ncolour = red\npoll = 60\nmax-action = 0\nmax-action = 2\n"),
      ElementsAre(
          "f, line 1: server must begin with https:// or http://.",
          "f, line 2: tenant must be a name of 1 to 128 characters without \"/\", \"?\", \"#\" and \"%\".",
          "f, line 3: controller must be a name of 1 to 128 characters without \"/\", \"?\", \"#\" and "
          "\"%\".",
          "f, line 4: token-type must be none, target or gateway.",
          "f, line 5: token-file must be an absolute path.", "f, line 6: allow-insecure must be yes or no.",
          "f, line 7: poll must be a whole number from 30 to 86400.",
          "f, line 8: consent must be never, update or download.",
          "f, line 9: confirm must be ask, yes or no.",
          "f, line 10: rate-limit must be a whole number from 0 to 1048576.",
          "f, line 11: max-size must be a whole number from 1 to 1048576.", "f, line 12: it has no \"=\".",
          "f, line 13: there is no setting colour.", "f, line 14: poll stands in line 7 already.",
          "f, line 15: max-action must be a whole number from 1 to 1048576.",
          "f, line 16: max-action stands in line 15 already."));
}

TEST(FleetConfiguration, RefusesWhatDoesNotGoTogether) {
  const std::string enough = kEnough;
  EXPECT_THAT(problemsOf("controller = tv1\n"), ElementsAre("f: it names no server."));
  EXPECT_THAT(problemsOf("list = https://s/r.json\n"), ElementsAre("f: list needs source = list."));
  EXPECT_THAT(problemsOf("server = https://s\n"),
              ElementsAre("f: it does not say who the set is: set controller."));
  EXPECT_THAT(problemsOf(enough + "token-type = target\n"), ElementsAre("f: token-type needs a token-file."));
  EXPECT_THAT(problemsOf(enough + "token-file = /t\n"),
              ElementsAre("f: token-file needs a token-type, target or gateway."));
  for (const char* one : {"client-key = /k\n", "client-certificate = /c\n"}) {
    EXPECT_THAT(problemsOf(enough + one), ElementsAre("f: client-certificate and client-key go together."));
  }
  EXPECT_THAT(problemsOf("server = http://s\ncontroller = tv1\n"),
              ElementsAre("f: the connection to the server is not protected: use https://, or set "
                          "allow-insecure = yes."));
}

TEST(FleetConfiguration, RefusesAServerThatIsNoPlainAddress) {
  for (const char* address : {"https://", "https:///x", "https://user:secret@s", "https://s?x", "https://a b",
                              "https://s:99999", "s"}) {
    EXPECT_THAT(problemsOf(std::string("controller = tv1\nserver = ") + address), SizeIs(1)) << address;
  }
}

TEST(FleetConfiguration, RefusesANameThatWouldLeadElsewhere) {
  for (const std::string& name :
       {std::string(".."), std::string("a/b"), std::string("a b"), std::string("a?b"), std::string("%2e"),
        std::string("\xC3\xA9"), std::string(129, 'a')}) {
    EXPECT_THAT(problemsOf("server = https://s\ncontroller = " + name), SizeIs(1)) << name;
  }
  EXPECT_THAT(problemsOf("server = https://s\ncontroller = " + std::string(128, 'a')), IsEmpty());
}

TEST(FleetConfiguration, RefusesASerialThatNoServerTakes) {
  for (const std::string& serial :
       {std::string(), std::string("a\tb"), std::string("\xC3\xA9"), std::string(129, '1')}) {
    EXPECT_THAT(problemsOf(kEnough + ("serial = " + serial)),
                ElementsAre("f, line 3: serial must be 1 to 128 printable characters of ASCII."))
        << serial;
  }
  EXPECT_THAT(problemsOf(kEnough + ("serial = " + std::string(128, '1'))), IsEmpty());
}

TEST(FleetConfiguration, IsNothingWithoutAFile) {
  const auto read = fleet::readConfiguration("/nonexistent/fw-fleet.conf");

  ASSERT_THAT(read.problems, SizeIs(1));
  EXPECT_THAT(textOf(read.problems[0], "f"), HasSubstr("f: it cannot be read: "));
  EXPECT_EQ(textOf(fleet::readConfiguration("/").problems.at(0), "f"), "f: it is no file.");
}

TEST(FleetConfiguration, SaysThatALineHasNoName) {
  EXPECT_THAT(problemsOf("= 1"), ElementsAre("f, line 1: it has no name before its \"=\"."));
}

TEST(FleetConfiguration, ShowsNothingOfALineThatATerminalWouldObey) {
  EXPECT_THAT(problemsOf("\x1b[2J = 1"), ElementsAre("f, line 1: there is no setting \\x1B[2J."));
}

class FleetToken : public ::testing::Test {
 protected:
  FleetToken() {
    char name[] = "/tmp/fleet-token-XXXXXX";
    directory_ = mkdtemp(name);
  }
  ~FleetToken() override { std::filesystem::remove_all(directory_); }

  std::string written(const std::string& content, mode_t mode = 0400) const {
    const std::string path = directory_ + "/token";
    std::filesystem::remove(path);
    std::ofstream(path) << content;
    chmod(path.c_str(), mode);
    return path;
  }

  std::string directory_;
};

class FleetConfigurationFile : public FleetToken {
 protected:
  std::string path(const std::string& name) const { return directory_ + "/" + name; }
  std::vector<std::string> problemsWith(const std::string& more) const {
    std::ofstream(path("conf")) << kEnough << more;
    std::vector<std::string> texts;
    for (const auto& problem : fleet::readConfiguration(path("conf")).problems) {
      texts.push_back(textOf(problem, "f"));
    }
    return texts;
  }
};

TEST_F(FleetConfigurationFile, NamesFilesForTlsThatCannotBeReadByTheirLines) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);

  EXPECT_THAT(
      problemsWith("ca-file = " + path("ca.pem") + "\nclient-certificate = " + directory_ +
                   "\nclient-key = " + path("fifo") + "\n"),
      ElementsAre("f, line 3: ca-file: " + path("ca.pem") + " cannot be read: No such file or directory.",
                  "f, line 4: client-certificate: " + directory_ + " is no regular file.",
                  "f, line 5: client-key: " + path("fifo") + " is no regular file."));
}

TEST_F(FleetConfigurationFile, TakesFilesForTlsThatAreThere) {
  for (const char* const name : {"ca.pem", "tv1.pem", "tv1.key"}) {
    std::ofstream(path(name)) << "PEM";
  }

  EXPECT_THAT(problemsWith("ca-file = " + path("ca.pem") + "\nclient-certificate = " + path("tv1.pem") +
                           "\nclient-key = " + path("tv1.key") + "\n"),
              IsEmpty());
}

TEST_F(FleetToken, IsTheOneLineOfItsFile) {
  EXPECT_EQ(readToken(written("s3cr3t+/=\n")).token, "s3cr3t+/=");
  EXPECT_EQ(readToken(written("s3cr3t")).token, "s3cr3t");
  EXPECT_EQ(readToken(written(std::string(1024, 'a'))).token.size(), 1024U);
}

TEST_F(FleetToken, IsRefusedWhereOthersMayUseItsFile) {
  for (const mode_t mode : {0440U, 0404U, 0420U, 0402U, 0410U, 0401U}) {
    const auto read = readToken(written("s3cr3t", mode));

    EXPECT_EQ(read.token, "");
    EXPECT_THAT(read.problem, HasSubstr("may be used by others: give it the mode 0400.")) << mode;
  }
}

TEST_F(FleetToken, IsNotShownWhenItIsWrong) {
  for (const std::string& content :
       {std::string(), std::string("\n"), std::string("s3cr3t\nmore"), std::string("s3cr3t "),
        std::string("s3cr3t\r\n"), std::string(1025, 'a'), std::string(5000, 'a'), std::string("s3\x01")}) {
    const auto read = readToken(written(content));

    EXPECT_EQ(read.token, "");
    EXPECT_EQ(read.problem, "The token file " + directory_ +
                                "/token must have one line of 1 to 1024 letters, digits and signs.");
  }
}

TEST_F(FleetToken, IsNotWaitedForWhereThereIsNoFile) {
  ASSERT_EQ(mkfifo((directory_ + "/fifo").c_str(), 0400), 0);

  EXPECT_THAT(readToken(directory_ + "/fifo").problem, HasSubstr("is no regular file."));
  EXPECT_THAT(readToken(directory_).problem, HasSubstr("is no regular file."));
  EXPECT_THAT(readToken(directory_ + "/none").problem, HasSubstr("cannot be read: "));
}

TEST_F(FleetToken, IsAsLittleForOthersAsTheKeyOfTheSetsCertificate) {
  for (const mode_t mode : {0440U, 0404U, 0420U, 0402U, 0410U, 0401U}) {
    EXPECT_EQ(fleet::problemOfKey(written("-----BEGIN", mode)),
              "The key file " + directory_ + "/token may be used by others: give it the mode 0400.")
        << mode;
  }
  EXPECT_EQ(fleet::problemOfKey(written("-----BEGIN")), "");
  EXPECT_EQ(fleet::problemOfKey(directory_), "The key file " + directory_ + " is no regular file.");
  EXPECT_THAT(fleet::problemOfKey(directory_ + "/none"), HasSubstr("/none cannot be read: "));
}

TEST(FleetConfiguration, TakesAListInThePlaceOfAServer) {
  const auto read = parseConfiguration("source = list\nlist = https://cdn:8443/tv/releases.json\n");

  EXPECT_THAT(read.problems, IsEmpty());
  EXPECT_EQ(read.configuration.source, fleet::SourceType::List);
  EXPECT_EQ(read.configuration.list, "https://cdn:8443/tv/releases.json");
  EXPECT_EQ(read.configuration.server, "https://cdn:8443");
}

TEST(FleetConfiguration, SaysWhatIsWrongWithAList) {
  constexpr char kProblem[] =
      "f, line 2: list must be the address of a file such as https://updates.example.org/tv/releases.json, "
      "without a user, \"?\" or \"#\".";
  for (const char* const wrong : {"https://s", "https://s/", "https:///r.json", "https://s:99999/r",
                                  "https://s/r.json?t", "https://u@s/r"}) {
    EXPECT_THAT(problemsOf(std::string("source = list\nlist = ") + wrong + "\n"), ElementsAre(kProblem))
        << wrong;
  }
  EXPECT_THAT(problemsOf("source = list\nlist = s\n"),
              ElementsAre("f, line 2: list must begin with https:// or http://."));
  EXPECT_THAT(problemsOf("source = lists\n"), ElementsAre("f, line 1: source must be server or list."));
  EXPECT_THAT(problemsOf("source = list\n"), ElementsAre("f: source = list needs a list: its address."));
  EXPECT_THAT(problemsOf(std::string(kEnough) + "list = https://s/r.json\n"),
              ElementsAre("f: list needs source = list."));
  EXPECT_THAT(problemsOf(std::string(kEnough) + "source = list\nlist = https://s/r.json\n"),
              ElementsAre("f: with source = list no server is asked: leave out server."));
  EXPECT_THAT(
      problemsOf("source = list\nlist = http://s/r.json\n"),
      ElementsAre(
          "f: the connection to the list is not protected: use https://, or set allow-insecure = yes."));
}

}  // namespace
