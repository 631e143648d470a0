// SPDX-License-Identifier: Apache-2.0
// Makes the bytes of a trace file from what a test wants in it, with a small ring.
// Only for use by one thread.
#ifndef TESTS_UNIT_FW_TRACE_TRACE_BUILDER_H
#define TESTS_UNIT_FW_TRACE_TRACE_BUILDER_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "trace/trace-format.h"

// nullptr is a null text.
using Argument = std::variant<std::int32_t, std::string, std::nullptr_t>;

class TraceBuilder {
 public:
  TraceBuilder();

  fwplatform::trace::FileHeader header;

  // Registers the place and returns its id. types: 'd' for a number, 's' for a text.
  std::uint32_t place(const std::string& function, const std::string& format, const std::string& types);
  // A record of the place, at this time (nanoseconds after the start).
  TraceBuilder& record(std::uint32_t place, std::uint32_t thread, std::int64_t time,
                       const std::vector<Argument>& arguments);
  TraceBuilder& rawRecord(std::uint32_t place, std::uint32_t thread, std::int64_t time, std::uint8_t kind,
                          const std::string& payload);

  // Offsets of the parts in the bytes.
  std::size_t placesOffset() const;
  std::size_t ringOffset() const;
  std::string bytes() const;

 private:
  std::string places_;
  std::string records_;
  std::uint32_t lastPlace_ = 0;
};

#endif
