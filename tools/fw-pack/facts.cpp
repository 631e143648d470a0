// SPDX-License-Identifier: Apache-2.0
#include "facts.h"

#include <algorithm>

#include "printable-text.h"

namespace fwpack {

void Facts::add(const char* member, const char* label, const Json::Value& value, const std::string& text) {
  facts_.push_back({member, label, value, text.empty() ? value.asString() : text});
}

Json::Value Facts::toJson() const {
  Json::Value document(Json::objectValue);
  for (const Fact& fact : facts_) {
    document[fact.member] = fact.value;
  }
  return document;
}

std::string Facts::toText() const {
  std::size_t width = 0;
  for (const Fact& fact : facts_) {
    width = std::max(width, std::string(fact.label).size());
  }
  std::string text;
  for (const Fact& fact : facts_) {
    const std::string label = fact.label;
    text += label + std::string(width - label.size() + 2, ' ') + base::printableText(fact.text) + "\n";
  }
  return text;
}

}  // namespace fwpack
