// SPDX-License-Identifier: Apache-2.0
#include "counted-version.h"

#include <algorithm>

namespace fwmodule {
namespace {

constexpr char kDigits[] = "0123456789";
constexpr char kFirstVersion[] = "1.0.0";

std::string increased(std::string number) {
  std::size_t digit = number.size();
  while (digit > 0 && number[digit - 1] == '9') {
    number[--digit] = '0';
  }
  if (digit == 0) {
    return "1" + number;
  }
  ++number[digit - 1];
  return number;
}

// With the number that ends before "end" one greater.
std::string countedUpBefore(const std::string& version, std::size_t end) {
  const std::size_t before = version.find_last_not_of(kDigits, end - 1);
  const std::size_t begin = before == std::string::npos ? 0 : before + 1;
  return version.substr(0, begin) + increased(version.substr(begin, end - begin)) + version.substr(end);
}

}  // namespace

std::string countedUp(const std::string& version) {
  const std::size_t last = version.find_last_of(kDigits);
  return last == std::string::npos ? kFirstVersion : countedUpBefore(version, last + 1);
}

std::vector<std::string> newerVersions(const std::string& version) {
  std::vector<std::string> newer = {countedUp(version)};
  const std::size_t first = version.find_first_of(kDigits);
  if (first != std::string::npos) {
    const std::size_t end = std::min(version.find_first_not_of(kDigits, first), version.size());
    newer.push_back(countedUpBefore(version, end));
  }
  newer.erase(std::unique(newer.begin(), newer.end()), newer.end());
  return newer;
}

}  // namespace fwmodule
