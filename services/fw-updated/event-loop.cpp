// SPDX-License-Identifier: Apache-2.0
#include "event-loop.h"

#include <sdbus-c++/IConnection.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

namespace updated {
namespace {

constexpr int kMessagesAtOnce = 16;  // then others have their turn

void require(int error, const char* what) {
  if (error < 0) {
    throw std::system_error(-error, std::generic_category(), what);
  }
}

// As waitpid gives it.
int statusOf(const siginfo_t& info) {
  return info.si_code == CLD_EXITED ? info.si_status << 8 : info.si_status;
}

}  // namespace

struct Source::State : std::enable_shared_from_this<Source::State> {
  State(sd_event* loop, std::exception_ptr* problem, EventLoop::Step what)
      : event(loop), failure(problem), step(std::move(what)) {}

  // What a step throws must not go through C.
  template <typename Run>
  int guarded(const Run& run) {
    const auto kept = shared_from_this();
    try {
      run();
    } catch (...) {
      *failure = std::current_exception();
      sd_event_exit(event, 1);
    }
    return 0;
  }

  sd_event* event;
  std::exception_ptr* failure;
  EventLoop::Step step;
  std::function<void(int)> ended;
  sd_event_source* source = nullptr;
};

namespace {

int onTime(sd_event_source*, std::uint64_t, void* data) {
  auto* const state = static_cast<Source::State*>(data);
  return state->guarded([state] { state->step(); });
}

int onDeferred(sd_event_source*, void* data) {
  auto* const state = static_cast<Source::State*>(data);
  return state->guarded([state] { state->step(); });
}

int onReadable(sd_event_source*, int, std::uint32_t, void* data) {
  return onDeferred(nullptr, data);
}

int onWritten(sd_event_source*, const inotify_event*, void* data) {
  return onDeferred(nullptr, data);
}

int onEnded(sd_event_source* source, const siginfo_t* info, void* data) {
  auto* const state = static_cast<Source::State*>(data);
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
  const int status = statusOf(*info);
  return state->guarded([state, status] { state->ended(status); });
}

}  // namespace

Source::Source() = default;
Source::Source(std::shared_ptr<State> state) : state_(std::move(state)) {}
Source::Source(Source&& other) noexcept = default;

Source& Source::operator=(Source&& other) noexcept {
  if (this != &other) {
    end();
    state_ = std::move(other.state_);
  }
  return *this;
}

Source::~Source() {
  end();
}

sd_event_source* Source::source() const {
  return state_->source;
}

void Source::end() {
  if (state_ != nullptr && state_->source != nullptr) {
    sd_event_source_disable_unref(std::exchange(state_->source, nullptr));
  }
  state_.reset();
}

EventLoop::EventLoop() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) {
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  require(sd_event_default(&event_), "sd_event_default");
  for (const int signal : {SIGTERM, SIGINT}) {
    require(sd_event_add_signal(event_, nullptr, signal, nullptr, nullptr), "sd_event_add_signal");
  }
  sd_event_set_watchdog(event_, 1);
}

EventLoop::~EventLoop() {
  messages_ = Source();
  messageTime_ = Source();
  sd_event_unref(event_);
}

Source EventLoop::watched(const std::shared_ptr<Source::State>& state, sd_event_source* source, int error) {
  require(error, "waiting");
  state->source = source;
  return Source(state);
}

Source EventLoop::after(std::chrono::milliseconds time, Step step) {
  auto state = std::make_shared<Source::State>(event_, &failure_, std::move(step));
  sd_event_source* source = nullptr;
  const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(time).count());
  const int error =
      sd_event_add_time_relative(event_, &source, CLOCK_MONOTONIC, microseconds, 0, onTime, state.get());
  return watched(state, source, error);
}

Source EventLoop::soon(Step step) {
  auto state = std::make_shared<Source::State>(event_, &failure_, std::move(step));
  sd_event_source* source = nullptr;
  const int error = sd_event_add_defer(event_, &source, onDeferred, state.get());
  return watched(state, source, error);
}

Source EventLoop::whenReadable(int descriptor, Step step) {
  constexpr std::uint32_t kIn = 1;  // EPOLLIN
  auto state = std::make_shared<Source::State>(event_, &failure_, std::move(step));
  sd_event_source* source = nullptr;
  const int error = sd_event_add_io(event_, &source, descriptor, kIn, onReadable, state.get());
  return watched(state, source, error);
}

Source EventLoop::whenChanged(int descriptor, Step step) {
  Source source = whenReadable(descriptor, std::move(step));
  require(sd_event_source_set_io_events(source.source(), EPOLLPRI), "waiting for a change");
  return source;
}

Source EventLoop::whenWritten(const std::string& path, Step step) {
  auto state = std::make_shared<Source::State>(event_, &failure_, std::move(step));
  sd_event_source* source = nullptr;
  const int error =
      sd_event_add_inotify(event_, &source, path.c_str(), IN_MODIFY | IN_CLOSE_WRITE, onWritten, state.get());
  return watched(state, source, error);
}

Source EventLoop::whenEnded(pid_t child, std::function<void(int status)> step) {
  auto state = std::make_shared<Source::State>(event_, &failure_, Step());
  state->ended = std::move(step);
  sd_event_source* source = nullptr;
  const int error = sd_event_add_child(event_, &source, child, WEXITED, onEnded, state.get());
  if (error >= 0) {
    // The kernel tells of the end of a process that somebody traces before it can be waited for, and
    // a source that is on for one event would have had it. On its way from one to the other it is off.
    sd_event_source_set_enabled(source, SD_EVENT_OFF);
    sd_event_source_set_enabled(source, SD_EVENT_ON);
  }
  return watched(state, source, error);
}

void EventLoop::serve(sdbus::IConnection& connection) {
  connection_ = &connection;
  messageTime_ = after(std::chrono::milliseconds(0), [this] { serveSome(); });
  messages_ = whenReadable(connection.getEventLoopPollData().fd, [this] { serveSome(); });
}

void EventLoop::serveSome() {
  for (int i = 0; i < kMessagesAtOnce && connection_->processPendingRequest(); ++i) {
  }
}

// The bus says anew before each wait what is waited for, and how long.
void EventLoop::waitForMessages() {
  if (connection_ == nullptr) {
    return;
  }
  const auto wanted = connection_->getEventLoopPollData();
  sd_event_source_set_io_events(messages_.source(), static_cast<std::uint32_t>(wanted.events));
  sd_event_source_set_time(messageTime_.source(), wanted.timeout_usec);
  sd_event_source_set_enabled(messageTime_.source(),
                              wanted.timeout_usec == UINT64_MAX ? SD_EVENT_OFF : SD_EVENT_ONESHOT);
}

void EventLoop::run() {
  while (sd_event_get_state(event_) != SD_EVENT_FINISHED) {
    waitForMessages();
    require(sd_event_run(event_, UINT64_MAX), "sd_event_run");
  }
  if (failure_) {
    std::rethrow_exception(failure_);
  }
}

}  // namespace updated
