// SPDX-License-Identifier: Apache-2.0
#include "tool-query.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "json-text.h"
#include "program-start.h"
#include "system-error.h"

namespace updated {
namespace {

constexpr std::ptrdiff_t kMostAtOnce = 4;
constexpr std::size_t kMostWaiting = 32;
constexpr std::ptrdiff_t kMostWaitingOfOneUser = 8;  // but for root
constexpr std::size_t kLongestAnswer = std::size_t{4} << 20;

}  // namespace

struct ToolQueries::Query {
  std::vector<std::string> arguments;
  Then then;
  std::vector<std::string> variables;
  std::optional<uid_t> user;
  pid_t process = -1;
  base::FileDescriptor output;
  std::string text;
  bool isLate = false;
  Source reading;
  Source ending;
  Source patience;
};

ToolQueries::ToolQueries(EventLoop& loop, std::string program, std::chrono::milliseconds patience)
    : loop_(loop), program_(std::move(program)), patience_(patience) {}

ToolQueries::~ToolQueries() {
  for (const Query& query : queries_) {
    if (query.process > 0) {
      kill(query.process, SIGTERM);
    }
  }
}

// Whoever asks without end leaves room for others.
bool ToolQueries::isBusyFor(uid_t user) const {
  const auto ofUser = std::count_if(queries_.begin(), queries_.end(),
                                    [user](const Query& query) { return query.user == user; });
  return queries_.size() >= kMostWaiting || (user != 0 && ofUser >= kMostWaitingOfOneUser);
}

void ToolQueries::ask(std::vector<std::string> arguments, Then then, std::vector<std::string> variables,
                      std::optional<uid_t> user) {
  Query& query = queries_.emplace_back();
  query.arguments = std::move(arguments);
  query.then = std::move(then);
  query.variables = std::move(variables);
  query.user = user;
  next_ = loop_.soon([this] { startWaiting(); });
}

void ToolQueries::startWaiting() {
  for (auto next = queries_.begin(); next != queries_.end();) {
    Query& query = *next++;
    const auto atWork =
        std::count_if(queries_.begin(), queries_.end(), [](const Query& one) { return one.process > 0; });
    if (atWork >= kMostAtOnce) {
      return;
    }
    if (query.process > 0) {
      continue;
    }
    if (const int error = start(query); error != 0) {
      finish(query, {Json::objectValue, program_ + " cannot be started: " + base::errnoText(error) + "."});
      return;
    }
  }
}

int ToolQueries::start(Query& query) {
  base::Pipe pipe = base::makePipe();
  if (!pipe.readEnd || fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
    return errno;
  }
  std::vector<std::string> words{program_};
  words.insert(words.end(), query.arguments.begin(), query.arguments.end());
  words.emplace_back("--json");
  base::ProgramStart program;
  program.apart().withNothingAt(STDIN_FILENO).with(pipe.writeEnd.get(), STDOUT_FILENO).withNothingFrom(3);
  std::vector<std::string> environment = base::environmentWithout("NOTIFY_SOCKET");
  environment.insert(environment.end(), query.variables.begin(), query.variables.end());
  if (const int error = program.run(words, environment, query.process); error != 0) {
    query.process = -1;
    return error;
  }
  query.output = std::move(pipe.readEnd);
  query.reading = loop_.whenReadable(query.output.get(), [this, &query] { read(query); });
  query.patience = loop_.after(patience_, [&query] {
    query.isLate = true;
    kill(query.process, SIGKILL);
  });
  query.ending = loop_.whenEnded(query.process, [this, &query](int) {
    read(query);
    ToolAnswer answer{parsedObject(query.text), ""};
    if (query.isLate) {
      answer.problem = "A module gave no answer, and the question was given up.";
    } else if (answer.document.empty()) {
      answer.problem = "A module crashed, or ended the command that asked.";
    }
    finish(query, answer);
  });
  return 0;
}

void ToolQueries::read(Query& query) {
  char block[65536];
  ssize_t count = 0;
  while ((count = ::read(query.output.get(), block, sizeof block)) > 0) {
    if (query.text.size() < kLongestAnswer) {
      query.text.append(block, static_cast<std::size_t>(count));
    }
  }
  if (count == 0) {
    query.reading = Source();
  }
}

void ToolQueries::finish(Query& query, const ToolAnswer& answer) {
  const Then then = std::move(query.then);
  queries_.remove_if([&query](const Query& one) { return &one == &query; });
  next_ = loop_.soon([this] { startWaiting(); });
  then(answer);
}

}  // namespace updated
