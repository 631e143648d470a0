// SPDX-License-Identifier: Apache-2.0
// What the service reads of documents of others.
#include "json-text.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>

namespace {

using updated::parsedObject;

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

}  // namespace
