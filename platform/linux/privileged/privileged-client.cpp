// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "deadline.h"
#include "file-descriptor.h"

namespace fwplatform {
namespace {

// For connecting and sending, which block when the service takes no more clients.
int limitSending(int socket, const base::Deadline& deadline) {
  // A limit of 0 would mean none.
  const int left = deadline.leftMs() + 1;
  timeval limit = {};
  limit.tv_sec = left / 1000;
  limit.tv_usec = suseconds_t{left % 1000} * 1000;
  return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 ? 0 : -errno;
}

// A send or connect that ran into its limit says EAGAIN.
int sendingError() {
  return errno == EAGAIN || errno == EINPROGRESS ? -ETIMEDOUT : -errno;
}

int connect(int socket, const base::Deadline& deadline) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof kPrivilegedSocketPath <= sizeof address.sun_path, "the path must fit");
  std::memcpy(address.sun_path, kPrivilegedSocketPath, sizeof kPrivilegedSocketPath);
  for (;;) {
    if (const int status = limitSending(socket, deadline); status != 0) {
      return status;
    }
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return 0;
    }
    if (errno != EINTR) {
      return sendingError();
    }
  }
}

int send(int socket, const std::string& message, const base::Deadline& deadline) {
  for (;;) {
    if (const int status = limitSending(socket, deadline); status != 0) {
      return status;
    }
    if (send(socket, message.data(), message.size(), MSG_NOSIGNAL) >= 0) {
      return 0;
    }
    if (errno != EINTR) {
      return errno == EPIPE ? -ECONNRESET : sendingError();
    }
  }
}

int receive(int socket, const base::Deadline& deadline, PrivilegedAnswer& answer) {
  const int count = deadline.waitToRead(socket);
  if (count <= 0) {
    return count == 0 ? -ETIMEDOUT : -errno;
  }
  // One byte more than an answer has, to see that it is not longer.
  char bytes[kPrivilegedAnswerSize + 1];
  const ssize_t length = recv(socket, bytes, sizeof bytes, MSG_DONTWAIT);
  if (length <= 0) {
    return length == 0 ? -ECONNRESET : -errno;
  }
  const auto decoded = decodePrivilegedAnswer({bytes, static_cast<std::size_t>(length)});
  if (!decoded) {
    return -EPROTO;
  }
  answer = *decoded;
  return 0;
}

}  // namespace

int askPrivilegedService(PrivilegedOperation operation, std::string_view text, int patienceMs,
                         PrivilegedAnswer& answer) {
  const base::Deadline deadline(std::max(patienceMs, 0));  // below 0 it is over already
  const base::FileDescriptor client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!client) {
    return -errno;
  }
  if (const int status = connect(client.get(), deadline); status != 0) {
    return status;
  }
  if (const int status = send(client.get(), encodePrivilegedMessage(operation, text), deadline);
      status != 0) {
    return status;
  }
  return receive(client.get(), deadline, answer);
}

}  // namespace fwplatform
