// SPDX-License-Identifier: Apache-2.0
#include "time-text.h"

#include <cstdio>
#include <ctime>
#include <regex>

namespace tracetool {
namespace {

constexpr std::int64_t kSecond = 1000000000;

struct Moment {
  std::tm local;
  std::int64_t fraction;  // nanoseconds
};

Moment momentOf(std::int64_t nanoseconds) {
  std::int64_t fraction = nanoseconds % kSecond;
  std::int64_t seconds = nanoseconds / kSecond;
  if (fraction < 0) {
    fraction += kSecond;
    --seconds;
  }
  const auto time = static_cast<std::time_t>(seconds);
  Moment moment = {};
  localtime_r(&time, &moment.local);
  moment.fraction = fraction;
  return moment;
}

bool matches(const std::string& text, std::smatch& parts) {
  static const std::regex kShape(
      R"((?:(\d{4})-(\d\d)-(\d\d)[T ])?([01]\d|2[0-3]):([0-5]\d)(?::([0-5]\d)(?:\.(\d{1,9}))?)?)");
  return std::regex_match(text, parts, kShape);
}

int number(const std::ssub_match& part) {
  return part.matched ? std::stoi(part.str()) : 0;
}

}  // namespace

bool isTimeText(const std::string& text) {
  std::smatch parts;
  return matches(text, parts);
}

std::optional<std::int64_t> parseTime(const std::string& text, std::int64_t dayOf) {
  std::smatch parts;
  if (!matches(text, parts)) {
    return std::nullopt;
  }
  std::tm time = momentOf(dayOf).local;
  if (parts[1].matched) {
    time.tm_year = number(parts[1]) - 1900;
    time.tm_mon = number(parts[2]) - 1;
    time.tm_mday = number(parts[3]);
  }
  time.tm_hour = number(parts[4]);
  time.tm_min = number(parts[5]);
  time.tm_sec = number(parts[6]);
  time.tm_isdst = -1;
  const std::string fraction = (parts[7].str() + "000000000").substr(0, 9);
  return static_cast<std::int64_t>(std::mktime(&time)) * kSecond + std::stoll(fraction);
}

std::string dayAndTime(std::int64_t nanoseconds) {
  const std::tm local = momentOf(nanoseconds).local;
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local));
}

std::string timeOfDay(std::int64_t nanoseconds) {
  const Moment moment = momentOf(nanoseconds);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &moment.local);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06d", static_cast<int>(moment.fraction / 1000));
  return std::string(text, length) + fraction;
}

std::string spanText(std::int64_t nanoseconds) {
  char text[48];
  const auto span = static_cast<double>(nanoseconds);
  if (nanoseconds >= kSecond) {
    std::snprintf(text, sizeof text, "%.2f s", span / 1e9);
  } else if (nanoseconds >= 1000000) {
    std::snprintf(text, sizeof text, "%.1f ms", span / 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.0f us", span / 1e3);
  }
  return text;
}

}  // namespace tracetool
