// SPDX-License-Identifier: Apache-2.0
#include "web-server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int kTries = 5;

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// The server cannot choose one itself.
int freePort() {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(probe, generic, size) == 0 && getsockname(probe, generic, &size) == 0;
  close(probe);
  if (!bound) {
    throw std::runtime_error("there is no free port");
  }
  return ntohs(address.sin_port);
}

void writeConfiguration(const WebServerStart& start, const std::string& directory, int port) {
  std::ofstream file(directory + "/configuration");
  file << "ServerRoot /usr/lib/apache2\n"
       << "ServerName localhost\n"
       << "Listen 127.0.0.1:" << port << "\n"
       << "PidFile " << directory << "/pid\n"
       << "DefaultRuntimeDir " << directory << "\n"
       << "Mutex posixsem\n";
  for (const char* module : {"mpm_event", "authz_core", "env", "ratelimit", "ssl"}) {
    file << "LoadModule " << module << "_module modules/mod_" << module << ".so\n";
  }
  file << "ErrorLog " << directory << "/errors\n"
       << "LogFormat \"%>s %{Range}i\" ranges\n"
       << "CustomLog " << directory << "/log ranges\n"
       << "DocumentRoot " << start.directory << "\n";
  if (start.kibPerSecond > 0) {
    file << "SetOutputFilter RATE_LIMIT\nSetEnv rate-limit " << start.kibPerSecond << "\n";
  }
  if (!start.certificate.empty()) {
    file << "SSLEngine on\nSSLCertificateFile " << start.certificate << "\n";
  }
}

bool connects(int port) {
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  const bool connected = connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(client);
  return connected;
}

}  // namespace

WebServer::WebServer(const WebServerStart& start) {
  char name[] = "/tmp/web-server.XXXXXX";
  if (mkdtemp(name) == nullptr || chmod(name, 0755) != 0) {
    throw std::runtime_error("no directory for the web server");
  }
  directory_ = name;
  for (int i = 0; i < kTries; ++i) {
    if (tryPort(start, freePort())) {
      return;
    }
  }
  throw std::runtime_error("the web server does not start");
}

// The server wants to give up root's rights, which root of a user namespace cannot;
// so it starts as another user.
bool WebServer::tryPort(const WebServerStart& start, int port) {
  writeConfiguration(start, directory_, port);
  program_ = std::make_unique<RunningProgram>(
      ProgramStart{{"unshare", "--user", "--map-user=1000", "/usr/sbin/apache2", "-X", "-f",
                    directory_ + "/configuration"},
                   "/",
                   0,
                   {}});
  url_ =
      (start.certificate.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") + std::to_string(port) + "/";
  while (!connects(port)) {
    if (!program_->isRunning()) {
      return false;
    }
    usleep(1000);  // nothing tells when it listens
  }
  return true;
}

bool WebServer::waitForLog(const std::string& line) const {
  constexpr int kPatienceMs = 10000;
  for (int i = 0; i < kPatienceMs; ++i) {
    const auto lines = log();
    if (std::find(lines.begin(), lines.end(), line) != lines.end()) {
      return true;
    }
    usleep(1000);  // nothing tells when it is written
  }
  return false;
}

std::vector<std::string> WebServer::log() const {
  std::vector<std::string> lines;
  std::ifstream file(directory_ + "/log");
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}
