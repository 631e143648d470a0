// SPDX-License-Identifier: Apache-2.0
// Questions that fw-update answers with one JSON document, a few at a time; the others wait.
// Nothing else waits for an answer. One thread.
#ifndef FW_UPDATED_TOOL_QUERY_H
#define FW_UPDATED_TOOL_QUERY_H

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <list>
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

  ToolQueries(EventLoop& loop, std::string program);
  // Ends those that are at work.
  ~ToolQueries();
  ToolQueries(const ToolQueries&) = delete;
  ToolQueries& operator=(const ToolQueries&) = delete;

  // arguments: without --json. then: once, and not before this has returned. variables: what the
  // command's environment has more.
  void ask(std::vector<std::string> arguments, Then then, std::vector<std::string> variables = {});
  // Whether a stranger's question should be refused.
  bool isBusy() const;

 private:
  struct Query;

  void startWaiting();
  int start(Query& query);
  void read(Query& query);
  void finish(Query& query, const ToolAnswer& answer);

  EventLoop& loop_;
  const std::string program_;
  std::list<Query> queries_;  // in the order in which they came
  Source next_;
};

}  // namespace updated

#endif
