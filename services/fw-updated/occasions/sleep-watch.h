// SPDX-License-Identifier: Apache-2.0
// The set's standby and shutdown, as logind announces them. Logind waits for as long as this
// holds its inhibitor, but no longer than its own InhibitDelayMaxSec. One thread.
#ifndef FW_UPDATED_SLEEP_WATCH_H
#define FW_UPDATED_SLEEP_WATCH_H

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <memory>
#include <string>

namespace updated {

class SleepWatch {
 public:
  using Step = std::function<void()>;

  // A step that is empty is for what nobody waits for.
  SleepWatch(sdbus::IConnection& connection, Step standby, Step shutdown);
  SleepWatch(const SleepWatch&) = delete;
  SleepWatch& operator=(const SleepWatch&) = delete;

  // What was to be done before is done: logind may go on, if it waits.
  void release();

 private:
  void listen(const char* signal, const Step& step);
  void hold();

  const Step standby_;
  const Step shutdown_;
  const std::unique_ptr<sdbus::IProxy> logind_;
  sdbus::UnixFd inhibitor_;
  bool isWaitedFor_ = false;  // logind waits for its release
};

}  // namespace updated

#endif
