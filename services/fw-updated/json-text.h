// SPDX-License-Identifier: Apache-2.0
// JSON that another program has written: nothing in it is taken for granted. Plain functions.
#ifndef FW_UPDATED_JSON_TEXT_H
#define FW_UPDATED_JSON_TEXT_H

#include <json/value.h>

#include <string>

namespace updated {

// Empty when the text is no object.
Json::Value parsedObject(const std::string& text);

// Valid UTF-8 without NUL; empty when the member is no text.
std::string textIn(const Json::Value& object, const char* member);

}  // namespace updated

#endif
