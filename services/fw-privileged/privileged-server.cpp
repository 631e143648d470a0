// SPDX-License-Identifier: Apache-2.0
#include "privileged-server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <utility>

namespace fwplatform {
namespace {

// How long a client may take to send its request.
constexpr std::chrono::milliseconds kPatience(2000);
// Clients that have sent nothing yet: in all, and of one user.
constexpr std::size_t kMostWaiting = 256;
constexpr std::size_t kMostWaitingOfOneUser = 64;
// Until a client is taken again when there was no descriptor for one.
constexpr std::chrono::milliseconds kPause(100);

std::optional<PrivilegedCaller> peerOf(int socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::nullopt;
  }
  return PrivilegedCaller{peer.pid, peer.uid, peer.gid};
}

// The groups that the peer had when it connected, besides its own.
std::vector<gid_t> peerGroups(int socket) {
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

// Errors after which the next connection may be taken; some of them only later.
struct PassingError {
  int error;
  bool isShortage;
};
constexpr PassingError kPassingErrors[] = {
    {EAGAIN, false}, {EINTR, false}, {ECONNABORTED, false}, {EPROTO, false}, {EPERM, false},
    {EMFILE, true},  {ENFILE, true}, {ENOMEM, true},        {ENOBUFS, true},
};

}  // namespace

PrivilegedServer::PrivilegedServer(base::FileDescriptor listener, std::optional<gid_t> allowedGroup,
                                   Heartbeat heartbeat)
    : listener_(std::move(listener)),
      allowedGroup_(allowedGroup),
      heartbeat_(std::move(heartbeat)),
      logger_([this](RequestEnd end, const PrivilegedCaller& caller, const std::string& text) {
        log_.log(end, caller, text);
      }) {
  fcntl(listener_.get(), F_SETFL, fcntl(listener_.get(), F_GETFL) | O_NONBLOCK);
}

bool PrivilegedServer::isAllowed(int socket, const PrivilegedCaller& caller) const {
  if (caller.uid == 0) {
    return true;
  }
  if (!allowedGroup_) {
    return false;
  }
  const std::vector<gid_t> groups = peerGroups(socket);
  return caller.gid == *allowedGroup_ ||
         std::find(groups.begin(), groups.end(), *allowedGroup_) != groups.end();
}

PrivilegedServer::Clients::iterator PrivilegedServer::oldestOf(uid_t uid) {
  return std::find_if(clients_.begin(), clients_.end(),
                      [uid](const Client& client) { return client.caller.uid == uid; });
}

// Of those who may not ask anyway, if there are any; and of these of the user who has
// most, so that many clients of others do not push out one that is about to ask.
PrivilegedServer::Clients::iterator PrivilegedServer::oldestOfTheGreediest() {
  const bool anyStranger =
      std::any_of(clients_.begin(), clients_.end(), [](const Client& client) { return !client.allowed; });
  std::map<uid_t, int> counts;
  for (const Client& client : clients_) {
    if (client.allowed != anyStranger) {
      ++counts[client.caller.uid];
    }
  }
  const auto most = std::max_element(counts.begin(), counts.end(), [](const auto& one, const auto& other) {
    return one.second < other.second;
  });
  return std::find_if(clients_.begin(), clients_.end(), [&](const Client& client) {
    return client.allowed != anyStranger && client.caller.uid == most->first;
  });
}

void PrivilegedServer::sendAway(Clients::iterator client) {
  refusePrivilegedRequest(client->caller, "a connection", "too many send nothing", logger_);
  clients_.erase(client);
}

// Somebody else has to go, of the same user if that one has many: whoever has just
// connected is about to send.
void PrivilegedServer::makeRoomFor(uid_t uid) {
  const auto ofUser = std::count_if(clients_.begin(), clients_.end(),
                                    [uid](const Client& client) { return client.caller.uid == uid; });
  if (static_cast<std::size_t>(ofUser) >= kMostWaitingOfOneUser) {
    sendAway(oldestOf(uid));
  } else if (clients_.size() >= kMostWaiting) {
    sendAway(oldestOfTheGreediest());
  }
}

void PrivilegedServer::takeClient(base::FileDescriptor socket) {
  const std::optional<PrivilegedCaller> caller = peerOf(socket.get());
  if (!caller) {
    return;
  }
  const bool allowed = isAllowed(socket.get(), *caller);
  Client client = {std::move(socket), *caller, allowed, Clock::now() + kPatience};
  // Most have sent their request by now; only the others have to wait.
  serveClient(client);
  if (!client.socket) {
    return;
  }
  makeRoomFor(caller->uid);
  clients_.push_back(std::move(client));
}

bool PrivilegedServer::acceptClients() {
  for (std::size_t i = 0; i < kMostWaiting; ++i) {
    base::FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      return afterFailedAccept(errno);
    }
    takeClient(std::move(socket));
    beat();
  }
  return true;
}

// False when the listening socket itself has failed.
bool PrivilegedServer::afterFailedAccept(int error) {
  const auto* const passing = std::find_if(std::begin(kPassingErrors), std::end(kPassingErrors),
                                           [error](const PassingError& one) { return one.error == error; });
  if (passing == std::end(kPassingErrors)) {
    return false;
  }
  if (passing->isShortage && !clients_.empty()) {
    sendAway(oldestOfTheGreediest());
  } else if (passing->isShortage) {
    listensFrom_ = Clock::now() + kPause;
  }
  return true;
}

void PrivilegedServer::reply(Client& client, std::string_view bytes) {
  const std::optional<PrivilegedMessage> message = decodePrivilegedMessage(bytes);
  PrivilegedAnswer answer;
  if (!client.allowed) {
    answer = refusePrivilegedRequest(client.caller, message ? nameOf(message->operation) : "a message",
                                     "the caller is neither root nor in the group of the service", logger_);
  } else if (!message) {
    answer = refusePrivilegedRequest(client.caller, "a message", "it is no request", logger_);
  } else {
    answer = answerPrivilegedRequest(message->operation, message->text, client.caller, logger_);
  }
  const std::string reply = encodePrivilegedAnswer(answer);
  const bool delivered =
      send(client.socket.get(), reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
  if (!delivered && message && client.allowed && answer.status == 0 && answer.result == 0) {
    takeBackPrivilegedRequest(message->operation, message->text, client.caller, logger_);
  }
}

// Reads the one request of a client and closes the connection.
void PrivilegedServer::serveClient(Client& client) {
  // One byte more than a message may have, to see that it is not longer.
  char bytes[kPrivilegedMessageCapacity + 1];
  const ssize_t length = recv(client.socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  // A caller that has gone away meanwhile gets nothing done.
  pollfd peer = {client.socket.get(), 0, 0};
  const bool gone = length < 0 || (poll(&peer, 1, 0) > 0 && (peer.revents & (POLLHUP | POLLERR)) != 0);
  if (gone) {
    log_.log(RequestEnd::Gone, client.caller,
             "nothing done, because the caller has gone: " + describe(client.caller));
  } else {
    reply(client, {bytes, static_cast<std::size_t>(length)});
  }
  client.socket.reset();
}

void PrivilegedServer::dropLateClients() {
  const Clock::time_point now = Clock::now();
  for (Client& client : clients_) {
    if (client.socket && client.deadline <= now) {
      refusePrivilegedRequest(client.caller, "a connection", "no request came in time", logger_);
      client.socket.reset();
    }
  }
  clients_.erase(
      std::remove_if(clients_.begin(), clients_.end(), [](const Client& client) { return !client.socket; }),
      clients_.end());
}

void PrivilegedServer::beat() {
  const Clock::time_point now = Clock::now();
  if (heartbeat_.interval.count() > 0 && now >= nextBeat_) {
    heartbeat_.beat();
    nextBeat_ = now + heartbeat_.interval;
  }
}

bool PrivilegedServer::listensNow() const {
  return listensFrom_ <= Clock::now();
}

int PrivilegedServer::msToNextEvent() const {
  std::optional<Clock::time_point> next = log_.nextDue();
  const auto consider = [&next](Clock::time_point time) { next = next ? std::min(*next, time) : time; };
  // The first one came first: all have the same patience.
  if (!clients_.empty()) {
    consider(clients_.front().deadline);
  }
  if (heartbeat_.interval.count() > 0) {
    consider(nextBeat_);
  }
  if (!listensNow()) {
    consider(listensFrom_);
  }
  if (!next) {
    return -1;
  }
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*next - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)) + 1;
}

// One round. False when the listening socket fails.
bool PrivilegedServer::waitForWork(int stopFd, bool& stop) {
  // A descriptor below 0 is not looked at.
  std::vector<pollfd> watched = {{stopFd, POLLIN, 0}, {listensNow() ? listener_.get() : -1, POLLIN, 0}};
  for (const Client& client : clients_) {
    watched.push_back({client.socket.get(), POLLIN, 0});
  }
  if (poll(watched.data(), watched.size(), msToNextEvent()) < 0) {
    return errno == EINTR;
  }
  stop = watched[0].revents != 0;
  if (stop) {
    return true;
  }
  for (std::size_t i = 2; i < watched.size(); ++i) {
    if (watched[i].revents != 0) {
      serveClient(clients_[i - 2]);
      beat();
    }
  }
  dropLateClients();
  return watched[1].revents == 0 || acceptClients();
}

bool PrivilegedServer::run(int stopFd) {
  bool stop = false;
  bool listening = true;
  while (listening && !stop) {
    beat();
    log_.tellWhatIsDue();
    listening = waitForWork(stopFd, stop);
  }
  const int error = errno;
  log_.tellAll();
  errno = error;
  return listening;
}

}  // namespace fwplatform
