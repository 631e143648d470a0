// SPDX-License-Identifier: Apache-2.0
// What the service reads of documents of others.
#include "json-text.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>
#include <vector>

namespace {

using updated::objectsIn;
using updated::parsedObject;
using updated::textIn;

std::string nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) {
    text += "{\"a\":";
  }
  return text + "1" + std::string(static_cast<std::size_t>(depth), '}');
}

TEST(JsonText, IsAnObjectOrNothing) {
  EXPECT_EQ(parsedObject("{\"a\": 1}")["a"].asInt(), 1);
  for (const char* const text : {"", "[1]", "7", "null", "{\"a\":", "{a"}) {
    EXPECT_EQ(parsedObject(text), Json::Value(Json::objectValue)) << text;
  }
}

TEST(JsonText, IsNotReadToAnyDepth) {
  EXPECT_FALSE(parsedObject(nested(63)).empty());
  EXPECT_TRUE(parsedObject(nested(64)).empty());
  EXPECT_TRUE(parsedObject(nested(100000)).empty());
}

TEST(JsonText, HasNoNulAndNoBrokenCharacters) {
  Json::Value object;
  object["text"] = std::string("\0a\0\0b\0", 6);
  object["broken"] = "a\xff";
  object["number"] = 7;

  EXPECT_EQ(textIn(object, "text"), "\\x00a\\x00\\x00b\\x00");
  EXPECT_EQ(textIn(object, "broken").find('\xff'), std::string::npos);
  EXPECT_EQ(textIn(object, "number"), "");
  EXPECT_EQ(textIn(object, "missing"), "");
}

TEST(JsonText, HasTheObjectsOfAListAlone) {
  const Json::Value document = parsedObject(R"({"list": [1, {"a": 2}, "x", {"a": 3}], "text": "x"})");

  const std::vector<Json::Value> objects = objectsIn(document["list"]);

  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects[0]["a"].asInt(), 2);
  EXPECT_EQ(objects[1]["a"].asInt(), 3);
  EXPECT_TRUE(objectsIn(document["text"]).empty());
}

}  // namespace
