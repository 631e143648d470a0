// SPDX-License-Identifier: Apache-2.0
#include "hardware.h"

#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <charconv>
#include <climits>
#include <sstream>
#include <system_error>
#include <thread>

#include "posix-file.h"

namespace fwcomponent {
namespace {

struct Key {
  const char* name;
  unsigned int greatest;
  std::optional<unsigned int> HardwareDescription::*field;
};

constexpr Key kKeys[] = {
    {"write_kib_per_second", INT_MAX, &HardwareDescription::writeKibPerSecond},
    {"fail_at_percent", 100, &HardwareDescription::failAtPercent},
    {"stall_at_percent", 100, &HardwareDescription::stallAtPercent},
    {"expected_time", INT_MAX, &HardwareDescription::expectedTime},
};

constexpr std::size_t kGreatestFile = 4096;

unsigned int parseValue(const std::string& text, unsigned int greatest, const std::string& line) {
  unsigned int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > greatest) {
    fail(EINVAL, "component description: bad value in \"" + line + "\"");
  }
  return value;
}

void parseLine(const std::string& line, HardwareDescription& description) {
  if (line.empty() || line[0] == '#') {
    return;
  }
  const std::size_t equals = line.find('=');
  const std::string name = boost::trim_copy(line.substr(0, equals));
  for (const Key& key : kKeys) {
    if (equals == std::string::npos || name != key.name) {
      continue;
    }
    description.*key.field = parseValue(boost::trim_copy(line.substr(equals + 1)), key.greatest, line);
    return;
  }
  fail(EINVAL, "component description: unknown key in \"" + line + "\"");
}

}  // namespace

HardwareDescription readHardwareDescription(const std::string& firmwareName) {
  HardwareDescription description;
  std::string text;
  try {
    text = readText(kComponentsDirectory + firmwareName + ".component", kGreatestFile);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) {
      return description;
    }
    throw;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    parseLine(boost::trim_copy(line), description);
  }
  return description;
}

void Hardware::takeBytes(std::size_t length) {
  const std::uint64_t bytesPerSecond = std::uint64_t{description_.writeKibPerSecond.value_or(0)} * 1024;
  if (bytesPerSecond == 0) {
    return;
  }
  taken_ += length;
  const std::chrono::microseconds due(taken_ * 1000000 / bytesPerSecond);
  std::this_thread::sleep_until(start_ + due);
}

void Hardware::reachPercent(unsigned int percent) const {
  if (percent >= description_.failAtPercent.value_or(UINT_MAX)) {
    fail(EIO, "the component failed at " + std::to_string(percent) + " percent");
  }
  while (percent >= description_.stallAtPercent.value_or(UINT_MAX)) {
    ::pause();
  }
}

}  // namespace fwcomponent
