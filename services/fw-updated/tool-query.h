// SPDX-License-Identifier: Apache-2.0
// Questions that fw-update answers with one JSON document, a few at a time; the others wait.
// Nothing else waits for an answer. One thread.
#ifndef FW_UPDATED_TOOL_QUERY_H
#define FW_UPDATED_TOOL_QUERY_H

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "event-loop.h"
#include "file-descriptor.h"

namespace updated {

struct ToolAnswer {
  Json::Value document;  // empty: it gave none
  std::string problem;   // a sentence then
};

class ToolQueries {
 public:
  using Then = std::function<void(const ToolAnswer& answer)>;

  // patience: then a question is given up, as of a module that never says its version.
  ToolQueries(EventLoop& loop, std::string program,
              std::chrono::milliseconds patience = std::chrono::seconds(60));
  // Ends those that are at work.
  ~ToolQueries();
  ToolQueries(const ToolQueries&) = delete;
  ToolQueries& operator=(const ToolQueries&) = delete;

  // arguments: without --json. then: once, and not before this has returned. variables: what the
  // command's environment has more. user: who wants to know, of those who ask from outside.
  void ask(std::vector<std::string> arguments, Then then, std::vector<std::string> variables = {},
           std::optional<uid_t> user = std::nullopt);
  // Whether another question of this user should be refused.
  bool isBusyFor(uid_t user) const;

 private:
  struct Query;

  void startWaiting();
  int start(Query& query);
  void read(Query& query);
  void finish(Query& query, const ToolAnswer& answer);

  EventLoop& loop_;
  const std::string program_;
  const std::chrono::milliseconds patience_;
  std::list<Query> queries_;  // in the order in which they came
  Source next_;
};

}  // namespace updated

#endif
