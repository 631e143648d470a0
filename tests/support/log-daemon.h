// SPDX-License-Identifier: Apache-2.0
// The system's log daemon, as a socket at /dev/log of the test's own, in an empty /dev of the
// device that the test runs in. One thread.
#ifndef TESTS_SUPPORT_LOG_DAEMON_H
#define TESTS_SUPPORT_LOG_DAEMON_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "file-descriptor.h"
#include "temporary-mount.h"

class LogDaemon {
 public:
  LogDaemon() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), "/dev/log");
    }
  }

  // What came since the last call: "<priority>", then what follows the program's name.
  std::vector<std::string> messages() const {
    std::vector<std::string> messages;
    std::vector<char> packet(256 * 1024);
    ssize_t count;
    while ((count = recv(socket_.get(), packet.data(), packet.size(), MSG_DONTWAIT)) > 0) {
      messages.push_back(withoutTimeAndProgram({packet.data(), static_cast<std::size_t>(count)}));
    }
    return messages;
  }

 private:
  static std::string withoutTimeAndProgram(const std::string& packet) {
    const std::string program = std::string(program_invocation_short_name) + ": ";
    const std::size_t name = packet.find(program);
    if (name == std::string::npos) {
      return "no program name: " + packet;
    }
    return packet.substr(0, packet.find('>') + 1) + packet.substr(name + program.size());
  }

  TemporaryMount dev_ = TemporaryMount::memory("/dev");
  base::FileDescriptor socket_ = base::FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
};

#endif
