// SPDX-License-Identifier: Apache-2.0
#include "status.h"

#include <gmock/gmock.h>

namespace {

using fleet::statusIn;
using fleet::textOf;

std::string shown(const std::string& document) {
  const auto status = statusIn(document);
  return status ? textOf(*status, 1000) : "none";
}

TEST(FleetStatusText, SaysThatNothingIsKnown) {
  EXPECT_EQ(shown(R"({"server": "https://s", "controller": "tv1", "nextPoll": 1030, "actions": []})"),
            "Server: https://s, as tv1\nAsked next: in 30 s\nNo action is known.\n");
}

TEST(FleetStatusText, SaysWhyAComponentFailedAndWhatToDo) {
  EXPECT_EQ(shown(R"({"list": "https://s/r", "nextPoll": 900, "trouble": "It is away.", "actions": [
                      {"id": "7", "state": "failure", "asks": "", "components": [
                        {"name": "tunerfw", "version": "2", "stage": "failed", "sentence": "There is no room.",
                         "remedy": "Free some."},
                        {"name": "wififw", "version": "3", "stage": "updated", "sentence": "", "remedy": ""}]}]})"),
            "List: https://s/r\nAsked next: in 0 s\nTrouble: It is away.\nAction 7: failure\n"
            "  tunerfw 2: failed. There is no room. Free some.\n  wififw 3: updated\n");
}

TEST(FleetStatusText, SaysHowToAnswerAnActionThatAsks) {
  EXPECT_EQ(shown(R"({"server": "https://s", "controller": "tv1", "nextPoll": 1000, "actions": [
                      {"id": "12", "state": "open", "asks": "update", "components": []}]})"),
            "Server: https://s, as tv1\nAsked next: in 0 s\nAction 12: open, asks whether to update\n"
            "  To answer: fw-fleet consent 12 yes\n");
}

TEST(FleetStatusText, IsNothingElseThanItsDocument) {
  for (const char* const other :
       {"", "[]", "{}", R"({"nextPoll": "1", "actions": []})", R"({"nextPoll": 1})"}) {
    EXPECT_EQ(shown(other), "none") << other;
  }
}

TEST(FleetStatusText, ShowsNothingThatATerminalWouldObey) {
  EXPECT_EQ(shown("{\"server\": \"\\u001b[2J\", \"controller\": \"t\", \"nextPoll\": 1000, \"actions\": []}"),
            "Server: \\x1B[2J, as t\nAsked next: in 0 s\nNo action is known.\n");
}

}  // namespace
