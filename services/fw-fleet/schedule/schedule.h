// SPDX-License-Identifier: Apache-2.0
// When the server is asked next. Sets that were started together, or that a server's failure brought
// into step, are to ask at different times; so each pause has a part that chance decides. Knows no
// clock. One object for a server; one thread.
#ifndef FW_FLEET_SCHEDULE_H
#define FW_FLEET_SCHEDULE_H

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

namespace fleet {

enum class Trouble {
  Passing,  // no network, or a server that has too much to do
  Refused,  // the server does not know the set: asking faster does not help
};

class Schedule {
 public:
  using Pause = std::chrono::milliseconds;
  // From 0 to less than 1.
  using Dice = std::function<double()>;

  // interval: where the server names none.
  Schedule(std::chrono::seconds interval, Dice dice);

  // After a start.
  Pause first() const;
  // After an answer; sleep: what the server said in it.
  Pause afterAnswer(std::optional<std::chrono::seconds> sleep);
  // Grows from one to the next, until there is an answer. retryAfter: what the server asked for.
  Pause afterTrouble(Trouble trouble, std::optional<std::chrono::seconds> retryAfter);

 private:
  const std::chrono::seconds interval_;
  const Dice dice_;
  int troubles_ = 0;  // one after the other
};

// Of the header Retry-After: seconds, or a date. now: seconds since 1970.
std::optional<std::chrono::seconds> parseRetryAfter(const std::string& value, std::time_t now);

}  // namespace fleet

#endif
