// SPDX-License-Identifier: Apache-2.0
// One request, without the program around it: what only another part of the program
// keeps from being asked for.
#include "transfer.h"

#include <curl/curl.h>

#include "download-test.h"
#include "failure.h"

namespace {

using fwdownload::Configuration;
using fwdownload::Failure;
using fwdownload::perform;
using fwdownload::Reason;
using fwdownload::Request;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class IntoNothing : public fwdownload::Receiver {
 public:
  void begin(const fwdownload::Response&) override {}
  void take(const char*, std::size_t) override {}
};

class Transfer : public DownloadTest {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }

  static std::string refusal(const Request& request, Reason reason) {
    IntoNothing nothing;
    Configuration configuration;
    configuration.connectTimeoutSeconds = 5;
    try {
      perform(request, configuration, nothing);
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.reason(), reason);
      return failure.what();
    }
    return "done";
  }
};

TEST_F(Transfer, SpeaksNoProtocolButThree) {
  OddServer server({{"anything"}});
  for (const std::string scheme : {"gopher", "dict", "telnet", "ftp"}) {
    const std::string url = scheme + server.url().substr(4) + "x";

    EXPECT_THAT(refusal({url, 0, ""}, Reason::Protocol),
                HasSubstr("Protocol \"" + scheme + "\" not supported or disabled"));
  }
  EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(Transfer, SendsNoHeaderWithALineBreak) {
  OddServer server({{"anything"}});

  EXPECT_EQ(refusal({server.url(), 5, "\"a\"\r\nX-More: 1"}, Reason::Internal),
            "A header to be sent has a control character in it.");

  EXPECT_THAT(server.requests(), IsEmpty());
}

}  // namespace
