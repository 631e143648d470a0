// SPDX-License-Identifier: Apache-2.0
// The privileged service behind its socket: takes clients, looks at who they are
// and answers one request for each connection. One thread. A client that sends
// nothing, or is not allowed, never keeps the others waiting.
#ifndef FW_PRIVILEGED_PRIVILEGED_SERVER_H
#define FW_PRIVILEGED_PRIVILEGED_SERVER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "file-descriptor.h"
#include "privileged/privileged-log.h"
#include "privileged/privileged-operations.h"

namespace fwplatform {

// What tells a watchdog that the service is alive: at least once in each interval, and
// not while a request hangs. An interval of 0: nobody watches.
struct Heartbeat {
  std::chrono::milliseconds interval{0};
  std::function<void()> beat;
};

class PrivilegedServer {
 public:
  // Owns the listening socket; it is made non-blocking. allowedGroup: whose
  // members may ask, besides root.
  PrivilegedServer(base::FileDescriptor listener, std::optional<gid_t> allowedGroup,
                   Heartbeat heartbeat = {});

  // Serves until stopFd becomes readable. False when the listening socket fails.
  bool run(int stopFd);

 private:
  using Clock = std::chrono::steady_clock;

  struct Client {
    base::FileDescriptor socket;
    PrivilegedCaller caller;
    bool allowed;
    Clock::time_point deadline;
  };
  using Clients = std::vector<Client>;

  bool waitForWork(int stopFd, bool& stop);
  bool acceptClients();
  bool afterFailedAccept(int error);
  void takeClient(base::FileDescriptor socket);
  void makeRoomFor(uid_t uid);
  Clients::iterator oldestOf(uid_t uid);
  Clients::iterator oldestOfTheGreediest();
  void sendAway(Clients::iterator client);
  bool isAllowed(int socket, const PrivilegedCaller& caller) const;
  void serveClient(Client& client);
  void reply(Client& client, std::string_view bytes);
  void dropLateClients();
  void beat();
  bool listensNow() const;
  int msToNextEvent() const;

  base::FileDescriptor listener_;
  std::optional<gid_t> allowedGroup_;
  Heartbeat heartbeat_;
  Clock::time_point nextBeat_ = Clock::now();
  // Nobody is taken before: there was no descriptor or memory for it.
  Clock::time_point listensFrom_ = Clock::now();
  Clients clients_;  // connected, with nothing sent yet
  LimitedRequestLog log_;
  RequestLogger logger_;
};

}  // namespace fwplatform

#endif
