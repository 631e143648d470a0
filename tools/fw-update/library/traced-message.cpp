// SPDX-License-Identifier: Apache-2.0
#include "library/traced-message.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <string>

#include "dlog.h"

namespace tool {
namespace {

std::string textOf(const tracetool::Value& value) {
  if (value.kind == tracetool::Value::Kind::Number) {
    return std::to_string(static_cast<std::int32_t>(value.number));
  }
  return value.kind == tracetool::Value::Kind::Null ? "(null)" : value.text;
}

}  // namespace

LogMessage messageOf(const tracetool::Message& traced) {
  LogMessage message;
  message.priority = DLOG_ERROR_PRIORITY;
  message.file = traced.file;
  message.function = traced.function;
  message.line = traced.line;
  message.format = traced.format;
  message.text = traced.text;
  message.thread = static_cast<long>(traced.threadId);
  message.time = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(traced.time));
  std::transform(traced.values.begin(), traced.values.end(), std::back_inserter(message.arguments), textOf);
  return message;
}

}  // namespace tool
