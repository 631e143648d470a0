#include "isolation/watched.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace tool::watched {
namespace {

std::atomic<int> channel{-1};

bool isChannel(int descriptor) {
  int type = 0;
  socklen_t size = sizeof type;
  return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET;
}

}  // namespace

bool begin() {
  const char* const text = std::getenv(kVariable);
  if (text == nullptr) {
    return false;
  }
  const int descriptor = static_cast<int>(std::strtol(text, nullptr, 10));
  unsetenv(kVariable);
  if (!isChannel(descriptor)) {
    return false;
  }
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);  // not for what modules start
  channel = descriptor;
  return true;
}

bool isWatched() {
  return channel >= 0;
}

// A watcher that is gone is not missed: the update goes on without it.
void tell(const Told& told) {
  if (!isWatched()) {
    return;
  }
  const int errorNumber = errno;
  const std::string datagram = toDatagram(told);
  while (send(channel, datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0 && errno == EINTR) {
  }
  errno = errorNumber;
}

}  // namespace tool::watched
