// SPDX-License-Identifier: Apache-2.0
#include "release-list.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using image::isArtifactName;
using image::parseReleaseList;
using image::parseTime;
using image::ReleaseList;
using image::timeText;

const std::string kSum(64, 'a');

ReleaseList aList() {
  return {
      7, 1795348800, 1797940800, {{"tunerfw", "2.0.0", "1.5.0", "set-7", {{"tunerempfw.img", 4096, kSum}}}}};
}

// With one member of the written text in other words.
std::string problemWith(const std::string& from, const std::string& to) {
  std::string text = toText(aList());
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return parseReleaseList(text.replace(at, from.size(), to)).problem;
}

TEST(ReleaseList, IsLaidOutAsTheFormatSays) {
  EXPECT_EQ(toText(aList()),
            "{\n"
            "  \"components\" : \n"
            "  [\n"
            "    {\n"
            "      \"artifacts\" : \n"
            "      [\n"
            "        {\n"
            "          \"file\" : \"tunerempfw.img\",\n"
            "          \"sha256\" : \"" +
                kSum +
                "\",\n"
                "          \"size\" : 4096\n"
                "        }\n"
                "      ],\n"
                "      \"minimumVersion\" : \"1.5.0\",\n"
                "      \"model\" : \"set-7\",\n"
                "      \"name\" : \"tunerfw\",\n"
                "      \"version\" : \"2.0.0\"\n"
                "    }\n"
                "  ],\n"
                "  \"expires\" : \"2026-12-22T12:00:00Z\",\n"
                "  \"format\" : 1,\n"
                "  \"issued\" : \"2026-11-22T12:00:00Z\",\n"
                "  \"number\" : 7\n"
                "}\n");
}

TEST(ReleaseList, IsReadAsItWasWritten) {
  const auto read = parseReleaseList(toText(aList()));

  ASSERT_TRUE(read.list) << read.problem;
  EXPECT_EQ(read.list->number, 7);
  EXPECT_EQ(read.list->issued, 1795348800);
  EXPECT_EQ(read.list->expires, 1797940800);
  ASSERT_EQ(read.list->components.size(), 1U);
  const auto& component = read.list->components[0];
  EXPECT_EQ(component.name, "tunerfw");
  EXPECT_EQ(component.version, "2.0.0");
  EXPECT_EQ(component.minimumVersion, "1.5.0");
  EXPECT_EQ(component.model, "set-7");
  ASSERT_EQ(component.artifacts.size(), 1U);
  EXPECT_EQ(component.artifacts[0].file, "tunerempfw.img");
  EXPECT_EQ(component.artifacts[0].size, 4096);
  EXPECT_EQ(component.artifacts[0].sha256, kSum);
}

TEST(ReleaseList, MayLeaveOutModelMinimumAndComponents) {
  ReleaseList list = aList();
  list.components[0].model = list.components[0].minimumVersion = "";
  EXPECT_EQ(toText(list).find("model"), std::string::npos);
  EXPECT_EQ(toText(list).find("minimumVersion"), std::string::npos);
  EXPECT_TRUE(parseReleaseList(toText(list)).list);

  list.components.clear();
  EXPECT_TRUE(parseReleaseList(toText(list)).list);
}

TEST(ReleaseList, SaysWhatIsWrongWithIt) {
  const struct {
    std::string from, to, problem;
  } kRows[] = {
      {"\"number\" : 7", "\"number\" : 0", "it has no number"},
      {"\"number\" : 7", "\"number\" : 1000000000000", "it has no number"},
      {"\"number\" : 7", "\"number\" : \"7\"", "it has no number"},
      {"2026-11-22T12:00:00Z", "2026-11-31T12:00:00Z", "it does not say when it was issued"},
      {"2026-12-22T12:00:00Z", "soon", "it does not say when it expires"},
      {"2026-12-22T12:00:00Z", "2026-11-22T12:00:00Z", "it expires before it was issued"},
      {"\"format\" : 1", "\"format\" : 0", "it does not say its format"},
      {"\"format\" : 1", "\"format\" : 2", "it has a newer format"},
      {"\"tunerfw\"", "\"../tunerfw\"", "a component has no name of firmware"},
      {"\"tunerfw\"", "7", "a component's name is no text"},
      {"\"2.0.0\"", "\"\"", "a component has no version"},
      {"\"1.5.0\"", "\"\\u0007\"", "a component's minimum version is no version"},
      {"\"set-7\"", "\"\\u00fc\"", "a component's model is no model"},
      {"tunerempfw.img", "a/b", "an artifact's file is no name of a file"},
      {"4096", "0", "an artifact has no size"},
      {"4096", "-1", "an artifact has no size"},
      {"4096", "1099511627777", "an artifact has no size"},
      {kSum, kSum + "a", "an artifact has no SHA-256"},
      {kSum, std::string(64, 'A'), "an artifact has no SHA-256"},
      {"\"number\" : 7", "\"number\" : 7, \"number\" : 8", "it is no JSON object of at most 1 MiB"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(problemWith(row.from, row.to), row.problem) << row.to;
  }
  EXPECT_EQ(parseReleaseList("[]").problem, "it is no JSON object of at most 1 MiB");
  EXPECT_EQ(parseReleaseList(std::string(5000, '[')).problem, "it is no JSON object of at most 1 MiB");
  EXPECT_EQ(parseReleaseList(std::string((1 << 20) + 1, ' ')).problem,
            "it is no JSON object of at most 1 MiB");
  EXPECT_EQ(parseReleaseList(toText(aList()) + "{}").problem, "it is no JSON object of at most 1 MiB");
}

TEST(ReleaseList, TakesTheFirstAndTheLastCharacterOfEachKindAndNoneBeside) {
  const std::string anySum = "09af" + std::string(60, '0');
  EXPECT_EQ(problemWith("\"tunerfw\"", "\"09AZaz\""), "");
  EXPECT_EQ(problemWith("\"2.0.0\"", "\" ~\""), "");
  EXPECT_EQ(problemWith(kSum, anySum), "");

  for (const char beside : {'/', ':', '@', '[', '`', '{'}) {
    EXPECT_EQ(problemWith("tunerfw", std::string("tuner") + beside), "a component has no name of firmware");
  }
  EXPECT_EQ(problemWith("\"2.0.0\"", "\"\x7f\""), "a component has no version");
  EXPECT_EQ(problemWith("\"2.0.0\"", "\"\\u001f\""), "a component has no version");
  for (const char beside : {'/', ':', '`', 'g'}) {
    EXPECT_EQ(problemWith(kSum, std::string(63, 'a') + beside), "an artifact has no SHA-256");
  }
}

TEST(ReleaseList, OfANewerFormatIsToldApart) {
  std::string text = toText(aList());
  text.replace(text.find("\"format\" : 1"), 12, "\"format\" : 2");

  EXPECT_TRUE(parseReleaseList(text).isNewer);
  EXPECT_FALSE(parseReleaseList("{}").isNewer);
}

TEST(ReleaseList, HasEachNameOnce) {
  ReleaseList list = aList();
  list.components.push_back(list.components[0]);
  EXPECT_EQ(parseReleaseList(toText(list)).problem, "two components have the same name");

  list = aList();
  list.components[0].artifacts.push_back(list.components[0].artifacts[0]);
  EXPECT_EQ(parseReleaseList(toText(list)).problem, "two artifacts of a component have the same name");
}

TEST(ReleaseList, IsBounded) {
  ReleaseList list = aList();
  list.components[0].artifacts.clear();
  EXPECT_EQ(parseReleaseList(toText(list)).problem, "a component has not 1 to 50 artifacts");

  for (int number = 0; number < 51; ++number) {
    list.components[0].artifacts.push_back({"f" + std::to_string(number), 1, kSum});
  }
  EXPECT_EQ(parseReleaseList(toText(list)).problem, "a component has not 1 to 50 artifacts");

  list = aList();
  for (int number = 0; number < 100; ++number) {
    list.components.push_back(list.components[0]);
    list.components.back().name = "fw" + std::to_string(number);
  }
  EXPECT_EQ(parseReleaseList(toText(list)).problem, "it has not up to 100 components");
}

TEST(ReleaseList, IsRecognisedAmongOtherDocuments) {
  EXPECT_TRUE(image::isReleaseList(toText(aList())));
  EXPECT_FALSE(image::isReleaseList(R"({"version": "2.0", "crc": 1, "expected_time": 30})"));
  EXPECT_FALSE(image::isReleaseList("no JSON"));
}

TEST(ReleaseListTime, IsReadAsItWasWritten) {
  EXPECT_EQ(parseTime("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(parseTime("2024-02-29T23:59:59Z"), 1709251199);
  EXPECT_EQ(timeText(1709251199), "2024-02-29T23:59:59Z");
  for (const char* const wrong :
       {"", "2023-02-29T00:00:00Z", "2026-11-22T24:00:00Z", "2026-11-22 12:00:00Z", "2026-11-22T12:00:00+",
        "2026-11-22T12:00:00", "1969-12-31T23:59:59Z", "2026-00-10T00:00:00Z", "2026-1x-10T00:00:00Z"}) {
    EXPECT_FALSE(parseTime(wrong)) << wrong;
  }
}

TEST(ReleaseListFile, HasAPlainName) {
  EXPECT_TRUE(isArtifactName("tuner_fw-2.bin.sig"));
  EXPECT_TRUE(isArtifactName("09AZaz"));
  EXPECT_TRUE(isArtifactName(std::string(128, 'a')));
  for (const std::string& name : {std::string(), std::string(".."), std::string(".a"), std::string("a/b"),
                                  std::string("a b"), std::string(129, 'a')}) {
    EXPECT_FALSE(isArtifactName(name)) << name;
  }
}

}  // namespace
