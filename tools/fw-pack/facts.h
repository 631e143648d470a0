// SPDX-License-Identifier: Apache-2.0
// What is known of a file, in the order found: lines for people, members for
// programs. A plain value.
#ifndef FW_PACK_FACTS_H
#define FW_PACK_FACTS_H

#include <json/value.h>

#include <string>
#include <vector>

namespace fwpack {

class Facts {
 public:
  // text: for people, when it is not the value itself.
  void add(const char* member, const char* label, const Json::Value& value, const std::string& text = "");

  Json::Value toJson() const;
  std::string toText() const;

 private:
  struct Fact {
    const char* member;
    const char* label;
    Json::Value value;
    std::string text;
  };
  std::vector<Fact> facts_;
};

}  // namespace fwpack

#endif
