// SPDX-License-Identifier: Apache-2.0
#include "metrics.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>

#include "file-descriptor.h"
#include "system-error.h"
#include "whole-file.h"

namespace history {
namespace {

constexpr char kUpdated[] = "updated";

// As a label's value is written.
std::string quoted(const std::string& text) {
  std::string value = "\"";
  for (const char character : text) {
    if (character == '\n') {
      value += "\\n";
    } else {
      value +=
          (character == '\\' || character == '"') ? std::string{'\\', character} : std::string{character};
    }
  }
  return value + "\"";
}

std::string labelsOf(const Total& total) {
  return "{module=" + quoted(total.module) + ",outcome=" + quoted(total.outcome) + "}";
}

std::string numberOf(double number) {
  char text[48];
  std::snprintf(text, sizeof text, "%.3f", number);
  return text;
}

std::string secondsOf(std::int64_t milliseconds) {
  return numberOf(static_cast<double>(milliseconds) / 1000);
}

std::string headOf(const char* name, const char* type, const char* help) {
  return std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

// One metric of every total.
struct Column {
  const char* name;
  const char* type;
  const char* help;
  std::string (*value)(const Total& total);
};

constexpr Column kColumns[] = {
    {"fw_update_attempts_total", "counter", "Attempts to update.",
     [](const Total& total) { return std::to_string(total.count); }},
    {"fw_update_seconds_total", "counter", "How long they took.",
     [](const Total& total) { return numberOf(total.seconds); }},
    {"fw_update_last_attempt_timestamp_seconds", "gauge", "When the last of them ended.",
     [](const Total& total) { return secondsOf(total.last); }},
};

std::string lastSuccesses(const std::vector<Total>& totals) {
  constexpr const char* kName = "fw_update_last_success_timestamp_seconds";
  std::string text = headOf(kName, "gauge", "When the module was last updated.");
  for (const Total& total : totals) {
    if (total.outcome == kUpdated && !total.module.empty()) {
      text += std::string(kName) + "{module=" + quoted(total.module) + "} " + secondsOf(total.last) + "\n";
    }
  }
  return text;
}

// Of each module the version after its last attempt.
std::string versions(const std::vector<Total>& totals) {
  constexpr const char* kName = "fw_update_version_info";
  std::map<std::string, Total> newest;
  for (const Total& total : totals) {
    if (!total.version.empty() && total.last >= newest[total.module].last) {
      newest[total.module] = total;
    }
  }
  std::string text = headOf(kName, "gauge", "The version that the module had after its last attempt.");
  for (const auto& [module, total] : newest) {
    if (!total.version.empty()) {
      text +=
          std::string(kName) + "{module=" + quoted(module) + ",version=" + quoted(total.version) + "} 1\n";
    }
  }
  return text;
}

}  // namespace

std::string metricsOf(const std::vector<Total>& totals, std::optional<bool> lockTaken) {
  std::string text;
  for (const Column& column : kColumns) {
    text += headOf(column.name, column.type, column.help);
    for (const Total& total : totals) {
      text += column.name + labelsOf(total) + " " + column.value(total) + "\n";
    }
  }
  text += lastSuccesses(totals) + versions(totals);
  if (lockTaken) {
    text +=
        headOf("fw_update_lock_taken", "gauge", "1 when the update lock was taken after the last attempt.");
    text += std::string("fw_update_lock_taken ") + (*lockTaken ? "1" : "0") + "\n";
  }
  return text;
}

std::string writeMetrics(const std::string& path, const std::string& text) {
  const auto slash = path.rfind('/');
  const std::string directory = slash == 0 ? "/" : path.substr(0, slash);
  const base::FileDescriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int error = opened ? base::replaceFileAt(opened.get(), path.substr(slash + 1), text, false) : errno;
  return error == 0 ? "" : "The metrics " + path + " cannot be written: " + base::errnoText(error) + ".";
}

}  // namespace history
