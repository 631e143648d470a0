#include "privileged/privileged-server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "dlog.h"
#include "errno-text.h"

namespace fwplatform {
namespace {

// How long a client may take to send its request.
constexpr std::chrono::milliseconds kPatience(2000);
// Clients that have sent nothing yet: in all, and of one user.
constexpr std::size_t kMostWaiting = 256;
constexpr std::size_t kMostWaitingOfOneUser = 64;

std::optional<PrivilegedCaller> PeerOf(int socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::nullopt;
  }
  return PrivilegedCaller{peer.pid, peer.uid, peer.gid};
}

// The groups that the peer had when it connected, besides its own.
std::vector<gid_t> PeerGroups(int socket) {
  std::vector<gid_t> groups(32);
  for (;;) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
      groups.resize(size / sizeof(gid_t));
      return groups;
    }
    const std::size_t needed = size / sizeof(gid_t);
    if (errno != ERANGE || needed <= groups.size()) {
      return {};
    }
    groups.resize(needed);
  }
}

// Errors of single connections, after which the next one may be taken.
bool ListenerGoesOn(int error) {
  for (const int passing : {EAGAIN, EINTR, ECONNABORTED, EPROTO, EPERM, EMFILE, ENFILE, ENOMEM, ENOBUFS}) {
    if (error == passing) {
      return true;
    }
  }
  return false;
}

}  // namespace

PrivilegedServer::PrivilegedServer(UniqueFd listener, std::optional<gid_t> allowedGroup)
    : listener_(std::move(listener)), allowedGroup_(allowedGroup) {
  fcntl(listener_.get(), F_SETFL, fcntl(listener_.get(), F_GETFL) | O_NONBLOCK);
}

bool PrivilegedServer::IsAllowed(int socket, const PrivilegedCaller& caller) const {
  if (caller.uid == 0) {
    return true;
  }
  if (!allowedGroup_) {
    return false;
  }
  const std::vector<gid_t> groups = PeerGroups(socket);
  return caller.gid == *allowedGroup_ ||
         std::find(groups.begin(), groups.end(), *allowedGroup_) != groups.end();
}

// The oldest has to go, of the same user if that one has many: whoever has just
// connected is about to send.
void PrivilegedServer::MakeRoomFor(uid_t uid) {
  const auto isOfUser = [uid](const Client& client) { return client.caller.uid == uid; };
  const auto ofUser = std::count_if(clients_.begin(), clients_.end(), isOfUser);
  auto oldest = clients_.end();
  if (static_cast<std::size_t>(ofUser) >= kMostWaitingOfOneUser) {
    oldest = std::find_if(clients_.begin(), clients_.end(), isOfUser);
  } else if (clients_.size() >= kMostWaiting) {
    oldest = clients_.begin();
  }
  if (oldest != clients_.end()) {
    RefusePrivilegedRequest(oldest->caller, "a connection", "too many send nothing");
    clients_.erase(oldest);
  }
}

void PrivilegedServer::TakeClient(UniqueFd socket) {
  const std::optional<PrivilegedCaller> caller = PeerOf(socket.get());
  if (!caller) {
    return;
  }
  const bool allowed = IsAllowed(socket.get(), *caller);
  Client client = {std::move(socket), *caller, allowed, Clock::now() + kPatience};
  // Most have sent their request by now; only the others have to wait.
  ServeClient(client);
  if (!client.socket) {
    return;
  }
  MakeRoomFor(caller->uid);
  clients_.push_back(std::move(client));
}

bool PrivilegedServer::AcceptClients() {
  for (std::size_t i = 0; i < kMostWaiting; ++i) {
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      return ListenerGoesOn(errno);
    }
    TakeClient(std::move(socket));
  }
  return true;
}

void PrivilegedServer::Reply(Client& client, std::string_view bytes) {
  const std::optional<PrivilegedMessage> message = DecodePrivilegedMessage(bytes);
  PrivilegedAnswer answer;
  if (!client.allowed) {
    answer = RefusePrivilegedRequest(client.caller, message ? NameOf(message->operation) : "a message",
                                     "the caller is neither root nor in the group of the service");
  } else if (!message) {
    answer = RefusePrivilegedRequest(client.caller, "a message", "it is no request");
  } else {
    answer = AnswerPrivilegedRequest(message->operation, message->text, client.caller);
  }
  const std::string reply = EncodePrivilegedAnswer(answer);
  const bool delivered =
      send(client.socket.get(), reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
  if (!delivered && message && client.allowed && answer.status == 0 && answer.result == 0) {
    TakeBackPrivilegedRequest(message->operation, message->text, client.caller);
  }
}

// Reads the one request of a client and closes the connection.
void PrivilegedServer::ServeClient(Client& client) {
  // One byte more than a message may have, to see that it is not longer.
  char bytes[kPrivilegedMessageCapacity + 1];
  const ssize_t length = recv(client.socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (length >= 0) {
    // A caller that has gone away meanwhile gets nothing done.
    pollfd peer = {client.socket.get(), 0, 0};
    const bool gone = poll(&peer, 1, 0) > 0 && (peer.revents & (POLLHUP | POLLERR)) != 0;
    if (!gone) {
      Reply(client, {bytes, static_cast<std::size_t>(length)});
    }
  }
  client.socket.reset();
}

void PrivilegedServer::DropLateClients() {
  const Clock::time_point now = Clock::now();
  for (Client& client : clients_) {
    if (client.socket && client.deadline <= now) {
      RefusePrivilegedRequest(client.caller, "a connection", "no request came in time");
      client.socket.reset();
    }
  }
  clients_.erase(
      std::remove_if(clients_.begin(), clients_.end(), [](const Client& client) { return !client.socket; }),
      clients_.end());
}

int PrivilegedServer::MsToNextDeadline() const {
  if (clients_.empty()) {
    return -1;
  }
  // The first one came first: all have the same patience.
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(clients_.front().deadline - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)) + 1;
}

bool PrivilegedServer::Run(int stopFd) {
  for (;;) {
    std::vector<pollfd> watched = {{stopFd, POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const Client& client : clients_) {
      watched.push_back({client.socket.get(), POLLIN, 0});
    }
    if (poll(watched.data(), watched.size(), MsToNextDeadline()) < 0 && errno != EINTR) {
      return false;
    }
    if (watched[0].revents != 0) {
      return true;
    }
    for (std::size_t i = 2; i < watched.size(); ++i) {
      if (watched[i].revents != 0) {
        ServeClient(clients_[i - 2]);
      }
    }
    DropLateClients();
    if (watched[1].revents != 0 && !AcceptClients()) {
      return false;
    }
  }
}

}  // namespace fwplatform
