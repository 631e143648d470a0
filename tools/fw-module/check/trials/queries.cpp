// SPDX-License-Identifier: Apache-2.0
// The same questions again and again, and from several threads at once.
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "lent-memory.h"
#include "trials.h"

namespace fwmodule {
namespace {

constexpr int kFirstCalls = 2;  // what is opened once and kept is no leak
constexpr int kCalls = 24;
constexpr unsigned int kThreads = 4;

// Asks once and says what was answered.
struct Query {
  EntryPoint entryPoint;
  std::function<std::string(const char* situation)> ask;
};

std::string text(int result, const std::string& value) {
  return std::to_string(result) + (result == 0 ? " and \"" + value + "\"" : "");
}

std::vector<Query> queriesOf(const Stage& stage) {
  LoadedModule& module = stage.module;
  const std::string version = stage.subject.activeVersion;
  const Query queries[] = {
      {EntryPoint::SetContext,
       [&module](const char* situation) { return text(module.setContext(CALLER_QUERY, "", situation), ""); }},
      {EntryPoint::GetEmpId,
       [&module](const char* situation) { return text(0, module.getEmpId(situation).text); }},
      {EntryPoint::GetActiveVersion,
       [&module](const char* situation) {
         const TextAnswer answer = module.getActiveVersion(situation);
         return text(answer.result, answer.text);
       }},
      {EntryPoint::CheckVersion,
       [&module, version](const char* situation) {
         const auto answer = module.checkVersion(version, situation);
         return text(answer.result, std::to_string(answer.value));
       }},
      {EntryPoint::GetExpectedTime,
       [&module](const char* situation) {
         const auto answer = module.getExpectedTime(situation);
         return text(answer.result, std::to_string(answer.value));
       }},
      {EntryPoint::GetUpdateProgress,
       [&module](const char* situation) {
         const auto answer = module.getUpdateProgress(situation);
         return text(answer.result, std::to_string(answer.value));
       }},
  };
  std::vector<Query> present;
  for (const Query& query : queries) {
    if (module.has(query.entryPoint)) {
      present.push_back(query);
    }
  }
  return present;
}

// Asks that often; tells about answers that differ.
void askRepeatedly(const Stage& stage, const Query& query, int times, const std::string& expected,
                   const char* situation) {
  for (int i = 0; i < times; ++i) {
    const std::string answer = query.ask(situation);
    if (answer == expected) {
      continue;
    }
    std::string text = infoOf(query.entryPoint).name;
    text.append(" first answered ").append(expected).append(", then ").append(answer);
    stage.transcript.finding(Check::SameAnswer, query.entryPoint, text + ", " + situation + ".");
    return;
  }
  stage.transcript.passed(Check::SameAnswer);
}

}  // namespace

void tryRepeatedCalls(const Stage& stage) {
  for (const Query& query : queriesOf(stage)) {
    const char* const situation = "when it was asked again and again";
    const std::string expected = query.ask(situation);
    for (int i = 1; i < kFirstCalls; ++i) {
      query.ask(situation);
    }
    const Census before = takeCensus();
    askRepeatedly(stage, query, kCalls, expected, situation);
    judgeLeftovers(stage, before, query.entryPoint, "after " + std::to_string(kCalls) + " calls");
  }
}

void tryConcurrentCalls(const Stage& stage) {
  const std::vector<Query> queries = queriesOf(stage);
  std::vector<std::string> expected;
  expected.reserve(queries.size());
  for (const Query& query : queries) {
    expected.push_back(query.ask("when it was asked alone"));
  }
  std::vector<std::thread> threads;
  for (unsigned int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      const FaultStack stack;
      for (std::size_t i = 0; i < queries.size(); ++i) {
        const std::size_t at = (i + number) % queries.size();  // each begins elsewhere
        askRepeatedly(stage, queries[at], kCalls, expected[at], "when several threads asked at once");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace fwmodule
