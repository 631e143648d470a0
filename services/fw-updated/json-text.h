// SPDX-License-Identifier: Apache-2.0
// JSON that another program has written: nothing in it is taken for granted. Plain functions.
#ifndef FW_UPDATED_JSON_TEXT_H
#define FW_UPDATED_JSON_TEXT_H

#include <json/value.h>

#include <string>
#include <vector>

namespace updated {

// Empty when the text is no object.
Json::Value parsedObject(const std::string& text);

// Valid UTF-8 without NUL; empty when the member is no text.
std::string textIn(const Json::Value& object, const char* member);

// The objects in a list; none when it is no list.
std::vector<Json::Value> objectsIn(const Json::Value& list);

}  // namespace updated

#endif
