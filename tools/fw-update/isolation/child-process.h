// A child process that runs this program again with the same arguments, and the socket
// on which it tells its story. Owns both; the process is not waited for when it still
// runs at the end. One thread.
#ifndef FW_UPDATE_TOOL_CHILD_PROCESS_H
#define FW_UPDATE_TOOL_CHILD_PROCESS_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <optional>

#include "isolation/told.h"
#include "unique-fd.h"

namespace tool {

class ChildCommand {
 public:
  // Throws std::system_error. Takes the signals that end a command, and the child's
  // end, away from this process: they come as events.
  explicit ChildCommand(char** arguments);
  ~ChildCommand();
  ChildCommand(const ChildCommand&) = delete;
  ChildCommand& operator=(const ChildCommand&) = delete;

  struct Events {
    std::function<void(const Told&)> onTold;
    // fromTerminal: the child has got it as well.
    std::function<void(int signal, bool fromTerminal)> onSignal;
  };
  // Waits for something to happen, at most this long, and tells all that has.
  void wait(std::chrono::milliseconds atMost, const Events& events);

  // As waitpid gives it; empty while it runs.
  std::optional<int> status();
  void kill(int signal);
  pid_t id() const { return process_; }

 private:
  [[noreturn]] void become(char** arguments, int channelEnd) const;
  void readChannel(const Events& events);
  void readSignals(const Events& events);

  pid_t process_ = -1;
  std::optional<int> ended_;
  fwplatform::UniqueFd channel_;
  fwplatform::UniqueFd signals_;
  sigset_t maskBefore_ = {};
  struct sigaction pipeBefore_ = {};
};

}  // namespace tool

#endif
