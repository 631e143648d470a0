// SPDX-License-Identifier: Apache-2.0
#include "odd-server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace {

constexpr int kDripMs = 100;

}  // namespace

OddServer::OddServer(std::vector<OddAnswer> answers) : answers_(std::move(answers)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener_, generic, size) != 0 || listen(listener_, 8) != 0 ||
      getsockname(listener_, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot listen");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

OddServer::~OddServer() {
  shutdown(listener_, SHUT_RDWR);
  thread_.join();
  close(listener_);
}

std::string OddServer::url() const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/";
}

std::vector<std::string> OddServer::requests() {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void OddServer::serve() {
  for (const OddAnswer& next : answers_) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      return;
    }
    answer(connection, next);
    close(connection);
  }
}

void OddServer::answer(int connection, const OddAnswer& answer) {
  std::string request;
  char block[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    const ssize_t count = read(connection, block, sizeof block);
    if (count <= 0) {
      return;
    }
    request.append(block, static_cast<std::size_t>(count));
  }
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }
  const std::size_t atOnce = answer.dripsAfter > 0 ? answer.dripsAfter : answer.bytes.size();
  bool connected = sendAll(connection, answer.bytes.substr(0, atOnce));
  for (std::size_t at = atOnce; connected && at < answer.bytes.size(); ++at) {
    pollfd gone = {connection, POLLIN, 0};
    connected = poll(&gone, 1, kDripMs) == 0 && sendAll(connection, answer.bytes.substr(at, 1));
  }
  while (connected && !answer.hangsUp && read(connection, block, sizeof block) > 0) {
  }
}

// False when the client has gone.
bool OddServer::sendAll(int connection, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::string httpAnswer(const std::string& status, const std::vector<std::string>& headers,
                       const std::string& body) {
  std::string text = "HTTP/1.1 " + status + "\r\n";
  for (const std::string& header : headers) {
    text += header + "\r\n";
  }
  return text + "\r\n" + body;
}
