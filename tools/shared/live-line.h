// One line at the bottom of a terminal that says what is going on, drawn on standard error
// and gone with the object. Elsewhere nothing is written. For one thread.
#ifndef FW_TOOL_LIVE_LINE_H
#define FW_TOOL_LIVE_LINE_H

#include <string>

namespace tool {

class LiveLine {
 public:
  LiveLine();
  ~LiveLine();
  LiveLine(const LiveLine&) = delete;
  LiveLine& operator=(const LiveLine&) = delete;

  // In the place of what was there; cut to the terminal's width.
  void show(const std::string& text);

 private:
  const bool shown_;
};

}  // namespace tool

#endif
