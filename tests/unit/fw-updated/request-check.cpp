// SPDX-License-Identifier: Apache-2.0
#include "request-check.h"

#include <gmock/gmock.h>
#include <sdbus-c++/Error.h>

#include <climits>
#include <functional>

#include "refusal.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using updated::checkCaller;
using updated::checkFolder;
using updated::checkModule;
using updated::queryWords;

// The sentence of the refusal; empty when there is none.
std::string refusalOf(const std::function<void()>& check) {
  try {
    check();
  } catch (const sdbus::Error& error) {
    EXPECT_EQ(error.getName(), updated::kInvalidArgument);
    return error.getMessage();
  }
  return "";
}

TEST(RequestCheck, TakesNamesOfModules) {
  EXPECT_EQ(refusalOf([] { checkModule("libtuner"); }), "");
  EXPECT_EQ(refusalOf([] { checkModule("a"); }), "");
  EXPECT_EQ(refusalOf([] { checkModule(std::string(127, 'a')); }), "");
}

TEST(RequestCheck, RefusesWhatIsNoNameOfAModule) {
  EXPECT_THAT(refusalOf([] { checkModule(""); }), HasSubstr("1 to 127 characters"));
  EXPECT_THAT(refusalOf([] { checkModule(std::string(128, 'a')); }), HasSubstr("1 to 127 characters"));
  for (const char* name : {"-a", ".a", "a/b", "a\nb", "a\x1f"}) {
    EXPECT_THAT(refusalOf([name] { checkModule(name); }), HasSubstr("as ListModules gives it")) << name;
  }
}

TEST(RequestCheck, KnowsCallersAndTheirData) {
  EXPECT_EQ(refusalOf([] { checkCaller("", ""); }), "");
  EXPECT_EQ(refusalOf([] { checkCaller("lsm", std::string(127, 'a')); }), "");
  EXPECT_EQ(refusalOf([] { checkCaller("factory-automation", ""); }), "");
  EXPECT_THAT(refusalOf([] { checkCaller("nobody", ""); }), HasSubstr("no such caller"));
  EXPECT_THAT(refusalOf([] { checkCaller("lsm", std::string(128, 'a')); }), HasSubstr("at most 127"));
  EXPECT_EQ(refusalOf([] { checkCaller("factory-automation", "x"); }),
            "The caller factory-automation has fixed data.");
}

TEST(RequestCheck, TakesAbsolutePathsOfFolders) {
  EXPECT_EQ(refusalOf([] { checkFolder(""); }), "");
  EXPECT_EQ(refusalOf([] { checkFolder("/media/drive"); }), "");
  EXPECT_EQ(refusalOf([] { checkFolder("/" + std::string(PATH_MAX - 2, 'a')); }), "");
  for (const std::string& folder : {std::string("media"), std::string("-x"), std::string("/a\nb"),
                                    "/" + std::string(PATH_MAX - 1, 'a')}) {
    EXPECT_EQ(refusalOf([&folder] { checkFolder(folder); }), "A folder is an absolute path.") << folder;
  }
}

TEST(RequestCheck, TakesQuestionsAndTheirOptions) {
  EXPECT_THAT(queryWords("list", {}), ElementsAre("list"));
  EXPECT_THAT(queryWords("lock status", {}), ElementsAre("lock", "status"));
  EXPECT_THAT(queryWords("pending", {"--caller=lsm", "--data", "x"}),
              ElementsAre("pending", "--caller=lsm", "--data", "x"));
  EXPECT_THAT(queryWords("history show", {"12"}), ElementsAre("history", "show", "12"));
  EXPECT_THAT(queryWords("verify", {"libtuner", "--version=2.0.0"}),
              ElementsAre("verify", "libtuner", "--version=2.0.0"));
}

TEST(RequestCheck, RefusesWhatChangesSomething) {
  for (const char* command :
       {"", "update", "update-all", "lock recover", "usb apply", "list; update", "List"}) {
    EXPECT_THAT(refusalOf([command] { queryWords(command, {}); }), HasSubstr("Only these can be asked"))
        << command;
  }
}

TEST(RequestCheck, RefusesOptionsThatHaveTheCommandAskSomebodyElseOrReadAFile) {
  for (const char* option : {"--service", "--bus=unix:path=/tmp/x", "--bus", "--key-file=/etc/shadow",
                             "--help", "-h", "--", "-"}) {
    EXPECT_EQ(refusalOf([option] { queryWords("list", {option}); }),
              std::string("A question has no such option: ") + option + ".");
  }
}

TEST(RequestCheck, RefusesMoreArgumentsThanAnyCommandHas) {
  const std::vector<std::string> most(16, "x");
  const std::vector<std::string> more(17, "x");

  EXPECT_EQ(refusalOf([&most] { queryWords("list", most); }), "");
  EXPECT_THAT(refusalOf([&more] { queryWords("list", more); }), HasSubstr("more arguments"));
  EXPECT_EQ(refusalOf([] { queryWords("list", {std::string(1024, 'x')}); }), "");
  EXPECT_THAT(refusalOf([] { queryWords("list", {std::string(1025, 'x')}); }), HasSubstr("more arguments"));
  EXPECT_EQ(refusalOf([] { queryWords("list", {""}); }), "");
}

}  // namespace
