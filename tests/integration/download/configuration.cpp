// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <gmock/gmock.h>

#include "device-environment.h"
#include "failure.h"

namespace {

using fwdownload::Configuration;
using fwdownload::parseConfiguration;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string refusal(const std::string& text) {
  try {
    parseConfiguration(text);
  } catch (const fwdownload::Failure& failure) {
    EXPECT_EQ(failure.reason(), fwdownload::Reason::Configuration);
    return failure.what();
  }
  return "taken";
}

TEST(DownloadConfiguration, NeedsAUrlAlone) {
  const Configuration configuration = parseConfiguration("url = https://updates.example/tv\n");

  EXPECT_EQ(configuration.url, "https://updates.example/tv/");
  EXPECT_EQ(configuration.maximumSize, 512LL * 1024 * 1024);
  EXPECT_EQ(configuration.maximumRedirects, 3);
  EXPECT_EQ(configuration.connectTimeoutSeconds, 20);
  EXPECT_EQ(configuration.stallTimeoutSeconds, 30);
  EXPECT_EQ(configuration.minimumSpeed, 1024);
  EXPECT_EQ(configuration.maximumRetries, 3);
}

TEST(DownloadConfiguration, TakesEveryKey) {
  const Configuration configuration = parseConfiguration(
      "# a comment\n\n  url=http://h/\r\nca_file = /a b\nredirect_hosts = a.example  b.example\n"
      "max_size_mib = 4096\nmax_redirects = 0\nconnect_timeout_s = 7\nstall_timeout_s = 8\n"
      "min_speed_kib_s = 9\nmax_retries = 10");

  EXPECT_EQ(configuration.url, "http://h/");
  EXPECT_EQ(configuration.caFile, "/a b");
  EXPECT_THAT(configuration.redirectHosts, ElementsAre("a.example", "b.example"));
  EXPECT_EQ(configuration.maximumSize, 4096LL * 1024 * 1024);
  EXPECT_EQ(configuration.maximumRedirects, 0);
  EXPECT_EQ(configuration.connectTimeoutSeconds, 7);
  EXPECT_EQ(configuration.stallTimeoutSeconds, 8);
  EXPECT_EQ(configuration.minimumSpeed, 9 * 1024);
  EXPECT_EQ(configuration.maximumRetries, 10);
}

TEST(DownloadConfiguration, AllowsNothingUnlessItSaysSo) {
  const std::string url = "url = https://h\n";
  const Configuration silent = parseConfiguration(url);
  const Configuration no = parseConfiguration(url + "allow_unsigned = false\nallow_insecure = false\n");
  const Configuration first = parseConfiguration(url + "allow_unsigned = true\n");
  const Configuration second = parseConfiguration(url + "allow_insecure = true\n");

  EXPECT_FALSE(silent.allowUnsigned || silent.allowInsecure || no.allowUnsigned || no.allowInsecure);
  EXPECT_TRUE(first.allowUnsigned && !first.allowInsecure);
  EXPECT_TRUE(second.allowInsecure && !second.allowUnsigned);
}

TEST(DownloadConfiguration, TakesUserAndPasswordOutOfTheUrl) {
  const Configuration configuration = parseConfiguration("url = https://us%40er:pass@h:1/x\n");

  EXPECT_EQ(configuration.url, "https://h:1/x/");
  EXPECT_EQ(configuration.user, "us@er");
  EXPECT_EQ(configuration.password, "pass");
}

// From the smallest to the largest, and one beyond each.
TEST(DownloadConfiguration, KnowsTheBoundsOfItsNumbers) {
  const struct {
    const char* key;
    long smallest;
    long largest;
  } bounds[] = {{"max_size_mib", 1, 1048576}, {"max_redirects", 0, 20},        {"connect_timeout_s", 1, 3600},
                {"stall_timeout_s", 1, 3600}, {"min_speed_kib_s", 0, 1048576}, {"max_retries", 0, 20}};
  for (const auto& bound : bounds) {
    const auto take = [&](long number) {
      return refusal("url = https://h\n" + std::string(bound.key) + " = " + std::to_string(number));
    };

    EXPECT_EQ(take(bound.smallest), "taken") << bound.key;
    EXPECT_EQ(take(bound.largest), "taken") << bound.key;
    EXPECT_THAT(take(bound.smallest - 1), HasSubstr("whole number from")) << bound.key;
    EXPECT_THAT(take(bound.largest + 1), HasSubstr("whole number from")) << bound.key;
  }
}

TEST(DownloadConfiguration, SaysWhichLineIsWrong) {
  const std::string url = "url = https://h\n";

  EXPECT_THAT(refusal(""), HasSubstr("gives no url"));
  EXPECT_THAT(refusal(url + "nonsense"), HasSubstr("line 2 is not of the form"));
  EXPECT_THAT(refusal(url + "urls = x"), HasSubstr("line 2 has an unknown key, \"urls\""));
  EXPECT_THAT(refusal(url + "a_z = x"), HasSubstr("line 2 has an unknown key, \"a_z\""));
  for (const char* noWord : {"https://u:p@h/?a=b", "u:p@h = x", "URL = x", "{ = x", "` = x"}) {
    EXPECT_THAT(refusal(url + noWord), HasSubstr("line 2 has an unknown key.")) << noWord;
  }
  EXPECT_THAT(refusal("url = https://u:p/w@h/"), HasSubstr("url is no valid address"));
  EXPECT_THAT(refusal("url =\n"), HasSubstr("line 1 has no value"));
  EXPECT_THAT(refusal("url = ftp://h\n"), HasSubstr("url must begin with https://"));
  EXPECT_THAT(refusal("url = file://host/x\n"), HasSubstr("url must begin with https://"));
  EXPECT_THAT(refusal("url = https://h/?a\n"), HasSubstr("must not have a \"?\""));
  EXPECT_THAT(refusal("url = https://h/#a\n"), HasSubstr("must not have a \"?\" or \"#\""));
  EXPECT_THAT(refusal(url + "allow_unsigned = yes"), HasSubstr("allow_unsigned must be true or false"));
  EXPECT_THAT(refusal(url + "allow_insecure = 1"), HasSubstr("allow_insecure must be true or false"));
  for (const char* number : {"0", "-1", "1x", "99999999999999999999", "1.5"}) {
    EXPECT_THAT(refusal(url + "max_size_mib = " + number), HasSubstr("whole number from 1 to 1048576"))
        << number;
  }
}

}  // namespace
