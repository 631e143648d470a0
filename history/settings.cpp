// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <cerrno>
#include <charconv>

#include "setting-lines.h"
#include "system-error.h"
#include "whole-file.h"

namespace history {
namespace {

constexpr std::size_t kLargestFile = std::size_t{64} * 1024;

struct Number {
  const char* name;
  int Settings::*place;
  int least;
  int most;
};

constexpr Number kNumbers[] = {
    {"max_entries", &Settings::mostEntries, 10, 1000000},
    {"max_size_kib", &Settings::mostKib, 256, 1048576},
};
constexpr char kMetrics[] = "metrics";
constexpr char kMetricsEnd[] = ".prom";

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// What is wrong with the value; empty when it was taken.
std::string setNumber(Settings& settings, const Number& row, const std::string& value) {
  int number = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end || number < row.least || number > row.most) {
    return std::string(row.name) + " must be a whole number from " + std::to_string(row.least) + " to " +
           std::to_string(row.most);
  }
  settings.*row.place = number;
  return "";
}

std::string set(Settings& settings, const std::string& name, const std::string& value) {
  for (const Number& row : kNumbers) {
    if (name == row.name) {
      return setNumber(settings, row, value);
    }
  }
  if (name != kMetrics) {
    return "there is no setting " + name;
  }
  if (value.empty() || value[0] != '/' || !endsWith(value, kMetricsEnd)) {
    return "metrics must be an absolute path that ends with .prom";
  }
  settings.metrics = value;
  return "";
}

// What is wrong with the line; empty when it was taken.
std::string take(Settings& settings, const base::SettingLine& line) {
  return line.isSetting ? set(settings, line.name, line.value) : "it has no \"=\"";
}

}  // namespace

SettingsRead readSettings(const std::string& path) {
  SettingsRead read;
  std::string content;
  if (const int error = base::readFile(path, kLargestFile, content); error != 0) {
    if (error != ENOENT) {
      read.problem = path + " cannot be read: " + base::errnoText(error);
    }
    return read;
  }
  for (const base::SettingLine& line : base::settingLines(content)) {
    const std::string problem = take(read.settings, line);
    if (!problem.empty() && read.problem.empty()) {
      read.problem = path;
      read.problem.append(", line ").append(std::to_string(line.number)).append(": ").append(problem);
    }
  }
  return read;
}

}  // namespace history
