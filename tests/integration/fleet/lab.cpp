// SPDX-License-Identifier: Apache-2.0
#include "lab.h"

#include <fcntl.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "exchange.h"
#include "file-descriptor.h"
#include "program-start.h"

namespace {

class IntoText : public transfer::Receiver {
 public:
  void begin(const transfer::Response&) override {}
  void take(const char* bytes, std::size_t count) override { text.append(bytes, count); }
  std::string text;
};

std::string lineFrom(int descriptor) {
  std::string line;
  char byte = 0;
  while (read(descriptor, &byte, 1) == 1 && byte != '\n') {
    line += byte;
  }
  return line;
}

}  // namespace

Lab::Lab(const std::vector<std::string>& options) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const base::FileDescriptor readEnd(ends[0]);
  base::FileDescriptor writeEnd(ends[1]);
  base::ProgramStart start;
  start.with(writeEnd.get(), STDOUT_FILENO);
  std::vector<std::string> command = {"/usr/bin/python3", "-B", LAB_SERVER};
  command.insert(command.end(), options.begin(), options.end());
  if (start.run(command, base::environmentWithout("FW_NOTHING"), process_) != 0) {
    throw std::runtime_error("the server cannot be started");
  }
  writeEnd.reset(-1);
  std::istringstream(lineFrom(readEnd.get())) >> address_ >> protectedAddress_;
  if (address_.empty()) {
    throw std::runtime_error("the server did not come up");
  }
}

Lab::~Lab() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

void Lab::steer(const std::string& what, const std::string& order) const {
  transfer::Request request;
  request.url = address_ + "/lab/" + what;
  request.method = "POST";
  request.body = order;
  std::replace(request.body.begin(), request.body.end(), '\'', '"');
  IntoText text;
  if (transfer::perform(request, {}, text).code != 204) {
    throw std::runtime_error("the server does not do " + what + " " + order);
  }
}

Json::Value Lab::state() const {
  transfer::Request request;
  request.url = address_ + "/lab/state";
  IntoText text;
  transfer::perform(request, {}, text);
  Json::Value state;
  std::istringstream(text.text) >> state;
  return state;
}

std::vector<std::string> Lab::history(const std::string& action) const {
  const Json::Value entries = state()["actions"][action]["history"];
  std::vector<std::string> history;
  for (const Json::Value& entry : entries) {
    history.push_back(entry["execution"].asString() + " " + entry["finished"].asString());
  }
  return history;
}

std::string Lab::stateOf(const std::string& action) const {
  return state()["actions"][action]["state"].asString();
}

std::vector<std::string> Lab::messages(const std::string& action) const {
  const Json::Value history = state()["actions"][action]["history"];
  std::vector<std::string> messages;
  for (const Json::Value& message : history[history.size() - 1]["details"]) {
    messages.push_back(message.asString());
  }
  return messages;
}

int Lab::requests(const std::string& what) const {
  const Json::Value state = this->state();
  return static_cast<int>(
      std::count_if(state["requests"].begin(), state["requests"].end(),
                    [&what](const Json::Value& request) { return request["what"].asString() == what; }));
}

int Lab::countOf(const std::string& header) const {
  const Json::Value requests = state()["requests"];
  return static_cast<int>(
      std::count_if(requests.begin(), requests.end(),
                    [&header](const Json::Value& request) { return request[header].isString(); }));
}
