// SPDX-License-Identifier: Apache-2.0
// The jobs of the service: one at work, the others behind it in the order in which they were
// asked for, and those that are done. Whoever asks has been found allowed to. One thread.
#ifndef FW_UPDATED_JOBS_H
#define FW_UPDATED_JOBS_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "event-loop.h"
#include "job-child.h"
#include "job-files.h"
#include "job-object.h"
#include "job.h"
#include "tool-query.h"

namespace updated {

class Jobs {
 public:
  Jobs(EventLoop& loop, sdbus::IConnection& connection, Tool tool, ToolQueries& queries);
  Jobs(const Jobs&) = delete;
  Jobs& operator=(const Jobs&) = delete;

  // What clients ask of jobs goes there; before the first job. listChanged: after each change of paths().
  void serve(JobObject::Requests requests, std::function<void()> listChanged);

  // Jobs of an earlier service: those at work are followed, those that wait go on waiting, and those
  // that were cut off are done.
  void restore();

  // The job is there when this returns. Throws sdbus::Error when there are too many.
  // isAsking: it waits for consent first.
  const Job& add(Request request, bool isAsking = false);
  // Of a job that asks. Both are for jobs that are there.
  void begin(std::uint64_t number);
  void finish(std::uint64_t number, const std::string& outcome, int exitCode, const std::string& sentence,
              const std::string& remedy);
  // Throws sdbus::Error when it is too late.
  void cancel(std::uint64_t number);

  const Job* find(std::uint64_t number) const;
  // The first that is not done and for which that holds; null: none.
  const Job* findOpen(const std::function<bool(const Job& job)>& holds) const;
  // What was handed over for jobs that are not done.
  std::set<std::string> folders() const;
  // After the last job that waited or was at work is done. Jobs that ask do not count.
  void whenIdle(std::function<void()> step) { idle_ = std::move(step); }
  bool isIdle() const;
  std::vector<sdbus::ObjectPath> paths() const;

 private:
  struct Item {
    Job job;
    std::unique_ptr<JobObject> object;
    bool isCancelled = false;
  };
  using Change = std::function<void(Job& job)>;
  enum class InHistory { End, NoEndYet, Nothing };  // of a job

  Item& insert(Job job);
  void change(Item& item, const Change& step);
  void keepEnd(const Job& job) const;
  void startNext();
  void start(Item& item);
  void follow(Item& item);
  JobChild::Listener listenerFor(Item& item);
  void tellEnd(Item& item, std::optional<int> status);
  void ended(Item& item, std::optional<int> status);
  void askSurely(const std::vector<std::string>& question, const ToolQueries::Then& then, int tries = 10);
  void learnEnd(Item& item, std::optional<int> status, int tries = 8);
  static bool isWithoutEntry(const Item& item, std::optional<int> status);
  InHistory takeFromHistory(Item& item, const Json::Value& document);
  void cleanUp(bool wasCutOff);
  void forgetOld();
  bool hasTooMany() const;

  EventLoop& loop_;
  sdbus::IConnection& connection_;
  const Tool tool_;
  ToolQueries& queries_;
  const JobFiles files_;
  JobObject::Requests requests_;
  std::function<void()> listChanged_;
  std::function<void()> idle_;
  std::map<std::uint64_t, std::unique_ptr<Item>> items_;
  std::uint64_t lastNumber_ = 0;
  std::unique_ptr<JobChild> child_;  // null: nothing is at work
  bool isCleaningUp_ = false;        // nothing may begin
  Source next_;
  Source ending_;
};

}  // namespace updated

#endif
