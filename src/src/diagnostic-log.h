// SPDX-License-Identifier: Apache-2.0
// The library's one way to say something. FW_LOG writes a message to the platform
// log and, at error priority, as a compact record to the trace storage; most
// progress messages are written at error priority on purpose. May be used from
// any thread. Not for lambdas or templates: __func__ is "operator()" in the one,
// and the other makes one call site per instantiation.
#ifndef DIAGNOSTIC_LOG_H
#define DIAGNOSTIC_LOG_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <typeinfo>

#include "dlog.h"
#include "library-messages.h"
#include "trace-storage.h"

namespace diagnostics {

constexpr int kDebug = DLOG_DEBUG_PRIORITY;
constexpr int kInfo = DLOG_INFO_PRIORITY;
constexpr int kError = DLOG_ERROR_PRIORITY;

constexpr const char* baseName(const char* path) {
  const char* name = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (*at == '/') {
      name = at + 1;
    }
  }
  return name;
}

// One per place that logs; constant-initialised, lives as long as the process.
struct CallSite {
  constexpr CallSite(const char* path, const char* function, int lineNumber, const char* logFormat)
      : sourcePath(path),
        fileName(baseName(path)),
        functionName(function),
        line(lineNumber),
        prefixedFormat(logFormat) {}

  // The message format without the prefix.
  const char* format() const { return prefixedFormat + sizeof(MESSAGE_PREFIX) - 1; }

  const char* sourcePath;
  const char* fileName;
  const char* functionName;
  int line;
  const char* prefixedFormat;
  std::atomic<std::uint32_t> locationId{0};  // 0 until the trace storage knows the site
};

// One argument of a message as the trace storage sees it.
struct TraceArgument {
  const std::type_info* type;
  bool isText;
  std::uint32_t number;
  const char* text;
  std::size_t length;  // of the text, measured once
};

template <typename Value>
TraceArgument traceArgument(Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    const char* const text = value;
    return {&typeid(const char*), true, 0, text, text == nullptr ? 0 : std::strlen(text)};
  } else {
    static_assert(sizeof(Value) == sizeof(std::uint32_t), "a trace record holds 32-bit numbers");
    return {&typeid(Value), false, static_cast<std::uint32_t>(value), nullptr, 0};
  }
}

// Registers the site at its first use and writes one record.
void writeTraceRecord(CallSite& site, const TraceArgument* arguments, std::size_t count);

// Never called: lets the compiler hold the arguments against the format.
[[gnu::format(printf, 1, 2)]] inline void checkFormat(const char*, ...) {}

// What the platform log gets of an argument: no null pointer, which a platform's own log
// may not survive.
template <typename Value>
auto logArgument(Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    const char* const text = value;
    return text == nullptr ? "(null)" : text;
  } else {
    return value;
  }
}

template <typename... Arguments>
void write(CallSite& site, int priority, const char* /*format*/, Arguments... arguments) {
  __dlog_print(fwmessages::kLogId, priority, fwmessages::kTag, site.prefixedFormat, site.fileName,
               site.functionName, site.line, logArgument(arguments)...);
  if (priority != kError || TraceStorage::enabled == 0) {
    return;
  }
  const std::array<TraceArgument, sizeof...(Arguments)> traced{traceArgument(arguments)...};
  writeTraceRecord(site, traced.data(), traced.size());
}

}  // namespace diagnostics

#define FW_LOG_FORMAT(format, ...) format

// FW_LOG_AS(function, priority, format, arguments...): for a step that logs under
// the name of the operation that it belongs to. format is one of library-messages.h.
#define FW_LOG_AS(function, priority, ...)                                               \
  do {                                                                                   \
    static diagnostics::CallSite callSite(__FILE__, function, __LINE__,                  \
                                          MESSAGE_PREFIX FW_LOG_FORMAT(__VA_ARGS__, 0)); \
    if (false) {                                                                         \
      diagnostics::checkFormat(__VA_ARGS__);                                             \
    }                                                                                    \
    diagnostics::write(callSite, priority, __VA_ARGS__);                                 \
  } while (false)

// FW_LOG(priority, format, arguments...)
#define FW_LOG(priority, ...) FW_LOG_AS(__func__, priority, __VA_ARGS__)

#endif
