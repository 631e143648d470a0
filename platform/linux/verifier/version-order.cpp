// SPDX-License-Identifier: Apache-2.0
#include "version-order.h"

#include <algorithm>
#include <cstddef>

namespace fwpackage {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool startsWithDigit(std::string_view text) {
  return !text.empty() && isDigit(text.front());
}

// Takes the number at the beginning off, without its leading zeros.
std::string_view takeNumber(std::string_view& text) {
  const std::size_t length = std::min(text.find_first_not_of("0123456789"), text.size());
  std::string_view number = text.substr(0, length);
  text.remove_prefix(length);
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

// As int: less than, equal to or greater than 0.
int compareNumbers(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) {
    return left.size() < right.size() ? -1 : 1;
  }
  return left.compare(right);
}

int compareVersions(std::string_view left, std::string_view right) {
  while (!left.empty() && !right.empty()) {
    if (startsWithDigit(left) && startsWithDigit(right)) {
      const std::string_view number = takeNumber(left);
      if (const int order = compareNumbers(number, takeNumber(right)); order != 0) {
        return order;
      }
    } else if (left.front() != right.front()) {
      return static_cast<unsigned char>(left.front()) < static_cast<unsigned char>(right.front()) ? -1 : 1;
    } else {
      left.remove_prefix(1);
      right.remove_prefix(1);
    }
  }
  return static_cast<int>(!left.empty()) - static_cast<int>(!right.empty());
}

}  // namespace

bool isOlder(std::string_view version, std::string_view than) {
  return compareVersions(version, than) < 0;
}

}  // namespace fwpackage
