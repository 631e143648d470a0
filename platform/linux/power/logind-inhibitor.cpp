// SPDX-License-Identifier: Apache-2.0
#include "power/logind-inhibitor.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>

namespace fwplatform {
namespace {

using Clock = std::chrono::steady_clock;

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

struct Reply {
  bool arrived = false;
  int status = -EIO;
  base::FileDescriptor inhibitor;
};

int takeDescriptor(sd_bus_message* message, base::FileDescriptor& inhibitor) {
  if (sd_bus_message_is_method_error(message, nullptr) > 0) {
    return -sd_bus_message_get_errno(message);
  }
  int borrowed = -1;
  if (sd_bus_message_read(message, "h", &borrowed) < 0) {
    return -EBADMSG;  // its own error is that of a service which is not there
  }
  inhibitor.reset(fcntl(borrowed, F_DUPFD_CLOEXEC, 3));
  return inhibitor ? 0 : -errno;
}

int onReply(sd_bus_message* message, void* data, sd_bus_error*) {
  Reply& reply = *static_cast<Reply*>(data);
  reply.arrived = true;
  reply.status = takeDescriptor(message, reply.inhibitor);
  return 1;
}

int ask(sd_bus* bus, const std::string& why, Reply& reply) {
  return sd_bus_call_method_async(bus, nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
                                  "org.freedesktop.login1.Manager", "Inhibit", onReply, &reply, "ssss",
                                  "shutdown:sleep:idle", "fw-update-control", why.c_str(), "block");
}

// Not the library's own waiting: that gives a bus which accepts and then says
// nothing a minute and a half.
int drive(sd_bus* bus, const Reply& reply, Clock::time_point deadline) {
  while (!reply.arrived) {
    const int processed = sd_bus_process(bus, nullptr);
    if (processed < 0 && processed != -EINTR) {
      return processed;
    }
    if (processed != 0) {
      continue;
    }
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return -ETIMEDOUT;
    }
    const int ready = sd_bus_wait(bus, static_cast<std::uint64_t>(left));
    if (ready < 0 && ready != -EINTR) {
      return ready;
    }
  }
  return reply.status;
}

}  // namespace

int takeLogindInhibitor(const std::string& why, base::FileDescriptor& inhibitor) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(kLogindPatienceMs);
  Reply reply;  // outlives the bus, which may still call back while it closes
  sd_bus* opened = nullptr;
  int status = sd_bus_open_system(&opened);
  const Bus bus(opened);
  if (status >= 0) {
    status = ask(bus.get(), why, reply);
  }
  if (status >= 0) {
    status = drive(bus.get(), reply, deadline);
  }
  if (status < 0) {
    return status;
  }
  inhibitor = std::move(reply.inhibitor);
  return 0;
}

}  // namespace fwplatform
