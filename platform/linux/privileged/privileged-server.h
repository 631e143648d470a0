// The privileged service behind its socket: takes clients, looks at who they are
// and answers one request for each connection. One thread. A client that sends
// nothing, or is not allowed, never keeps the others waiting.
#ifndef PLATFORM_LINUX_PRIVILEGED_SERVER_H
#define PLATFORM_LINUX_PRIVILEGED_SERVER_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "privileged/privileged-operations.h"
#include "unique-fd.h"

namespace fwplatform {

class PrivilegedServer {
 public:
  // Owns the listening socket; it is made non-blocking. allowedGroup: whose
  // members may ask, besides root.
  PrivilegedServer(UniqueFd listener, std::optional<gid_t> allowedGroup);

  // Serves until stopFd becomes readable. False when the listening socket fails.
  bool Run(int stopFd);

 private:
  using Clock = std::chrono::steady_clock;

  struct Client {
    UniqueFd socket;
    PrivilegedCaller caller;
    bool allowed;
    Clock::time_point deadline;
  };

  bool AcceptClients();
  void TakeClient(UniqueFd socket);
  void MakeRoomFor(uid_t uid);
  bool IsAllowed(int socket, const PrivilegedCaller& caller) const;
  void ServeClient(Client& client);
  void Reply(Client& client, std::string_view bytes);
  void DropLateClients();
  int MsToNextDeadline() const;

  UniqueFd listener_;
  std::optional<gid_t> allowedGroup_;
  std::vector<Client> clients_;  // connected, with nothing sent yet
};

}  // namespace fwplatform

#endif
