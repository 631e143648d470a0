// SPDX-License-Identifier: Apache-2.0
// Log messages as the library writes them, for tests.
#ifndef TESTS_UNIT_FW_UPDATE_MESSAGES_H
#define TESTS_UNIT_FW_UPDATE_MESSAGES_H

#include <string>
#include <utility>
#include <vector>

#include "library/library-log.h"

inline tool::LogMessage message(const std::string& format, std::vector<std::string> arguments = {},
                                int errorNumber = 0) {
  tool::LogMessage message;
  message.priority = 6;
  message.format = format;
  message.arguments = std::move(arguments);
  message.errorNumber = errorNumber;
  for (const std::string& argument : message.arguments) {
    message.text += argument + " ";
  }
  return message;
}

#endif
