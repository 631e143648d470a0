#include "configuration.h"

#include <gmock/gmock.h>

#include "device-environment.h"
#include "failure.h"

namespace {

using fwdownload::Configuration;
using fwdownload::ParseConfiguration;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string refusal(const std::string& text) {
  try {
    ParseConfiguration(text);
  } catch (const fwdownload::Failure& failure) {
    EXPECT_EQ(failure.reason(), fwdownload::Reason::kConfiguration);
    return failure.what();
  }
  return "taken";
}

TEST(DownloadConfiguration, NeedsAUrlAlone) {
  const Configuration configuration = ParseConfiguration("url = https://updates.example/tv\n");

  EXPECT_EQ(configuration.url, "https://updates.example/tv/");
  EXPECT_EQ(configuration.maximumSize, 512LL * 1024 * 1024);
  EXPECT_EQ(configuration.maximumRedirects, 3);
}

TEST(DownloadConfiguration, TakesEveryKey) {
  const Configuration configuration = ParseConfiguration(
      "# a comment\n\n  url=http://h/\r\nca_file = /a b\nredirect_hosts = a.example  b.example\n"
      "max_size_mib = 4096\nmax_redirects = 0\nconnect_timeout_s = 7\nstall_timeout_s = 8");

  EXPECT_EQ(configuration.url, "http://h/");
  EXPECT_EQ(configuration.caFile, "/a b");
  EXPECT_THAT(configuration.redirectHosts, ElementsAre("a.example", "b.example"));
  EXPECT_EQ(configuration.maximumSize, 4096LL * 1024 * 1024);
  EXPECT_EQ(configuration.maximumRedirects, 0);
  EXPECT_EQ(configuration.connectTimeoutSeconds, 7);
  EXPECT_EQ(configuration.stallTimeoutSeconds, 8);
}

TEST(DownloadConfiguration, SaysWhichLineIsWrong) {
  const std::string url = "url = https://h\n";

  EXPECT_THAT(refusal(""), HasSubstr("gives no url"));
  EXPECT_THAT(refusal(url + "nonsense"), HasSubstr("line 2 is not of the form"));
  EXPECT_THAT(refusal(url + "urls = x"), HasSubstr("line 2 has an unknown key, \"urls\""));
  EXPECT_THAT(refusal("url =\n"), HasSubstr("line 1 has no value"));
  EXPECT_THAT(refusal("url = ftp://h\n"), HasSubstr("url must begin with https://"));
  EXPECT_THAT(refusal("url = file://host/x\n"), HasSubstr("url must begin with https://"));
  EXPECT_THAT(refusal("url = https://h/?a\n"), HasSubstr("must not have a \"?\""));
  for (const char* number : {"0", "-1", "1x", "99999999999999999999", "1.5"}) {
    EXPECT_THAT(refusal(url + "max_size_mib = " + number), HasSubstr("whole number from 1 to 1048576"))
        << number;
  }
}

}  // namespace
