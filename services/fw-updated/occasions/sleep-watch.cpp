// SPDX-License-Identifier: Apache-2.0
#include "sleep-watch.h"

#include <iostream>
#include <utility>

namespace updated {
namespace {

constexpr char kManager[] = "org.freedesktop.login1.Manager";

}  // namespace

SleepWatch::SleepWatch(sdbus::IConnection& connection, Step standby, Step shutdown)
    : standby_(std::move(standby)),
      shutdown_(std::move(shutdown)),
      logind_(sdbus::createProxy(connection, "org.freedesktop.login1", "/org/freedesktop/login1")) {
  listen("PrepareForSleep", standby_);
  listen("PrepareForShutdown", shutdown_);
  logind_->finishRegistration();
  hold();
}

void SleepWatch::listen(const char* signal, const Step& step) {
  if (!step) {
    return;
  }
  logind_->uponSignal(signal).onInterface(kManager).call([this, &step](bool begins) {
    isWaitedFor_ = begins;
    if (begins) {
      step();
    } else {
      hold();
    }
  });
}

void SleepWatch::hold() {
  const std::string what = std::string(shutdown_ ? "shutdown" : "") + (shutdown_ && standby_ ? ":" : "") +
                           (standby_ ? "sleep" : "");
  logind_->callMethodAsync("Inhibit")
      .onInterface(kManager)
      .withArguments(what, std::string("fw-updated"), std::string("Updates of firmware come first"),
                     std::string("delay"))
      .uponReplyInvoke([this](const sdbus::Error* error, sdbus::UnixFd inhibitor) {
        if (error == nullptr) {
          inhibitor_ = std::move(inhibitor);
        } else {
          std::cerr << "Nothing is updated before standby or shutdown: logind does not wait: "
                    << error->getMessage() << "\n";
        }
      });
}

// Not whenever there is nothing to do: the next shutdown would not wait.
void SleepWatch::release() {
  if (isWaitedFor_) {
    inhibitor_.reset();
  }
}

}  // namespace updated
