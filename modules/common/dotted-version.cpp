// SPDX-License-Identifier: Apache-2.0
#include "dotted-version.h"

#include <algorithm>

namespace fwcomponent {
namespace {

// Cuts the first number off text and returns it without leading zeros, so that
// the longer of two numbers is the greater one. The end of text counts as zeros.
std::string_view takeNumber(std::string_view& text) {
  const std::size_t end = std::min(text.find('.'), text.size());
  std::string_view number = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

}  // namespace

bool isVersion(std::string_view text) {
  char previous = '.';
  for (const char character : text) {
    const bool digit = character >= '0' && character <= '9';
    if (!digit && (character != '.' || previous == '.')) {
      return false;
    }
    previous = character;
  }
  return previous != '.';
}

int compareVersions(std::string_view left, std::string_view right) {
  while (!left.empty() || !right.empty()) {
    const std::string_view a = takeNumber(left);
    const std::string_view b = takeNumber(right);
    if (a.size() != b.size()) {
      return a.size() < b.size() ? -1 : 1;
    }
    if (const int order = a.compare(b); order != 0) {
      return order;
    }
  }
  return 0;
}

}  // namespace fwcomponent
