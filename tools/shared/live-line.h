// SPDX-License-Identifier: Apache-2.0
// One line at the bottom of a terminal that says what is going on: drawn again and again in
// its place, and gone with the object. Elsewhere nothing is written. For one thread.
#ifndef FW_TOOL_LIVE_LINE_H
#define FW_TOOL_LIVE_LINE_H

#include <cstddef>
#include <optional>
#include <string>

#include "terminal.h"

namespace tool {

class LiveLine {
 public:
  // STDOUT_FILENO or STDERR_FILENO.
  explicit LiveLine(int descriptor);
  ~LiveLine();
  LiveLine(const LiveLine&) = delete;
  LiveLine& operator=(const LiveLine&) = delete;

  // The last column stays free: with it, another line would begin.
  std::size_t width() const;

  // In the place of what was there; cut to the width.
  void show(const std::string& text, std::optional<Colour> colour = std::nullopt);

  // The line is empty then, and something else may be written.
  void clear();

 private:
  const int descriptor_;
  const bool isShown_;
  bool isDrawn_ = false;
};

}  // namespace tool

#endif
