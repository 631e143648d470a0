// SPDX-License-Identifier: Apache-2.0
#include "system-bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int kPatienceMs = 20000;
constexpr char kAddress[] = "unix:path=/run/test-system-bus";
constexpr char kLogind[] = "org.freedesktop.login1";
constexpr char kLogindObject[] = "/org/freedesktop/login1";
constexpr char kManager[] = "org.freedesktop.login1.Manager";
static_assert(SIGSTOP == 19 && SIGCONT == 18, "the header names them by number");

constexpr char kConfiguration[] = R"(<busconfig>
  <listen>unix:path=/run/test-system-bus</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

int checked(int status, const char* what) {
  if (status < 0) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(-status));
  }
  return status;
}

[[noreturn]] void become(const std::vector<std::string>& words, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(output, STDOUT_FILENO);
  std::vector<char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

void waitForText(int output, const std::string& text) {
  std::string seen;
  while (seen.find(text) == std::string::npos) {
    pollfd ready = {output, POLLIN, 0};
    char block[256];
    const ssize_t count = poll(&ready, 1, kPatienceMs) > 0 ? read(output, block, sizeof block) : 0;
    if (count <= 0) {
      throw std::runtime_error("the program ended, or did not get ready: " + seen);
    }
    seen.append(block, static_cast<std::size_t>(count));
  }
}

}  // namespace

HelperProgram::HelperProgram(const std::vector<std::string>& words, const std::string& readyText) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  id_ = fork();
  if (id_ == 0) {
    become(words, readyText.empty() ? open("/dev/null", O_WRONLY) : ends[1]);
  }
  close(ends[1]);
  if (!readyText.empty()) {
    waitForText(ends[0], readyText);
  }
  close(ends[0]);
}

HelperProgram::~HelperProgram() {
  kill(id_, SIGKILL);
  waitpid(id_, nullptr, 0);
}

void HelperProgram::signal(int number) const {
  kill(id_, number);
}

SystemBus::SystemBus() {
  std::ofstream("/run/test-system-bus.conf") << kConfiguration;
  daemon_ = std::make_unique<HelperProgram>(
      std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile",
                               "--config-file=/run/test-system-bus.conf", "--print-address=1"},
      "\n");
  setenv("DBUS_SYSTEM_BUS_ADDRESS", kAddress, 1);
  checked(sd_bus_open_system(&connection_), "the test cannot connect to its bus");
}

SystemBus::~SystemBus() {
  sd_bus_close_unref(connection_);
}

void SystemBus::waitForOwner(const std::string& name) const {
  const std::string match =
      "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'";
  const auto ignore = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
  sd_bus_slot* slot = nullptr;
  checked(sd_bus_add_match(connection_, &slot, match.c_str(), ignore, nullptr), "no match");
  for (;;) {
    sd_bus_message* reply = nullptr;
    const int found =
        sd_bus_call_method(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply, "s", name.c_str());
    sd_bus_message_unref(reply);
    if (found >= 0) {
      break;
    }
    if (checked(sd_bus_process(connection_, nullptr), "bus") == 0 &&
        checked(sd_bus_wait(connection_, kPatienceMs * 1000ULL), "bus") == 0) {
      throw std::runtime_error(name + " does not appear on the bus");
    }
  }
  sd_bus_slot_unref(slot);
}

// Debian's interpreter by its path: its modules are for no other one.
LogindStandIn::LogindStandIn(const SystemBus& bus, Answers answers) : bus_(bus) {
  std::vector<std::string> words = {"/usr/bin/python3", "-m", "dbusmock", "--system"};
  if (answers == Answers::Inhibitors) {
    words.insert(words.end(), {"--template", "logind"});
  } else {
    words.insert(words.end(), {kLogind, kLogindObject, kManager});
  }
  process_ = std::make_unique<HelperProgram>(words, "");
  bus.waitForOwner(kLogind);
  if (answers == Answers::AccessDenied) {
    answerInhibit("h",
                  "raise dbus.exceptions.DBusException('no', "
                  "name='org.freedesktop.DBus.Error.AccessDenied')");
  } else if (answers == Answers::Text) {
    answerInhibit("s", "ret = 'no descriptor'");
  }
}

void LogindStandIn::answerInhibit(const char* signature, const char* code) const {
  checked(
      sd_bus_call_method(bus_.connection(), kLogind, kLogindObject, "org.freedesktop.DBus.Mock", "AddMethod",
                         nullptr, nullptr, "sssss", kManager, "Inhibit", "ssss", signature, code),
      "AddMethod");
}

std::vector<Inhibitor> LogindStandIn::inhibitors() const {
  sd_bus_message* reply = nullptr;
  checked(sd_bus_call_method(bus_.connection(), kLogind, kLogindObject, kManager, "ListInhibitors", nullptr,
                             &reply, ""),
          "ListInhibitors");
  std::vector<Inhibitor> list;
  checked(sd_bus_message_enter_container(reply, 'a', "(ssssuu)"), "ListInhibitors");
  const char *what, *who, *why, *mode;
  unsigned int user, process;
  while (checked(sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &user, &process),
                 "ListInhibitors") > 0) {
    list.push_back({what, who, why, mode});
  }
  sd_bus_message_unref(reply);
  return list;
}

bool LogindStandIn::waitForInhibitors(std::size_t count) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (inhibitors().size() != count) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
  }
  return true;
}
