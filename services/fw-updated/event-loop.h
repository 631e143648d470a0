// SPDX-License-Identifier: Apache-2.0
// What the service waits for: messages of the bus, children, files, times, and the signals
// that end it. Nothing is looked at again and again. One thread, and one loop a process.
#ifndef FW_UPDATED_EVENT_LOOP_H
#define FW_UPDATED_EVENT_LOOP_H

#include <sys/types.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>

struct sd_event;
struct sd_event_source;

namespace sdbus {
class IConnection;
}

namespace updated {

// Something that is waited for, as long as this lives. A step may end its own source.
class Source {
 public:
  struct State;

  Source();
  explicit Source(std::shared_ptr<State> state);
  Source(Source&& other) noexcept;
  Source& operator=(Source&& other) noexcept;
  ~Source();

  explicit operator bool() const { return state_ != nullptr; }
  sd_event_source* source() const;

 private:
  void end();

  std::shared_ptr<State> state_;
};

class EventLoop {
 public:
  using Step = std::function<void()>;

  // Takes SIGTERM, SIGINT and SIGCHLD away from the process. Throws std::system_error, as
  // everything here does.
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The connection outlives the loop's run.
  void serve(sdbus::IConnection& connection);

  [[nodiscard]] Source after(std::chrono::milliseconds time, Step step);
  // As soon as the loop has nothing else to do.
  [[nodiscard]] Source soon(Step step);
  [[nodiscard]] Source whenReadable(int descriptor, Step step);
  // Whenever the kernel tells of a change in one of its tables, such as that of mounts.
  [[nodiscard]] Source whenChanged(int descriptor, Step step);
  // Whenever something is written to the file, and when its last writer closes it.
  [[nodiscard]] Source whenWritten(const std::string& path, Step step);
  // status: as waitpid gives it; the child has been waited for then.
  [[nodiscard]] Source whenEnded(pid_t child, std::function<void(int status)> step);

  // Until a signal asks for the end, or a step throws: then what it threw.
  void run();

 private:
  Source watched(const std::shared_ptr<Source::State>& state, sd_event_source* source, int error);
  void serveSome();
  void waitForMessages();

  sd_event* event_ = nullptr;
  sdbus::IConnection* connection_ = nullptr;
  Source messages_;
  Source messageTime_;
  std::exception_ptr failure_;
};

}  // namespace updated

#endif
