// SPDX-License-Identifier: Apache-2.0
// The log lines about privileged requests, each with who asked.
#ifndef PLATFORM_LINUX_PRIVILEGED_LOG_H
#define PLATFORM_LINUX_PRIVILEGED_LOG_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace fwplatform {

struct PrivilegedCaller {
  pid_t pid;
  uid_t uid;
  gid_t gid;
};

std::string describe(const PrivilegedCaller& caller);

// What became of a request, or of a connection without one.
enum class RequestEnd { Done, Failed, Refused, Gone };

// Writes the line of one request, without a line end.
using RequestLogger = std::function<void(RequestEnd, const PrivilegedCaller&, const std::string& text)>;

// At once, and every line.
void logRequest(RequestEnd end, const PrivilegedCaller& caller, const std::string& text);

// As many lines of each user and each end as a well-behaved caller ever causes. What is
// beyond that is counted, and told in one line when the user's time span is over. One
// thread.
class LimitedRequestLog {
 public:
  using Clock = std::chrono::steady_clock;
  using TimeNow = std::function<Clock::time_point()>;
  static constexpr std::chrono::seconds kSpan{5};
  // Further users share their limits, so that many users can't take the memory either.
  static constexpr std::size_t kMostUsers = 64;

  // write: where the lines go.
  explicit LimitedRequestLog(RequestLogger write = logRequest, TimeNow now = Clock::now)
      : write_(std::move(write)), now_(std::move(now)) {}

  void log(RequestEnd end, const PrivilegedCaller& caller, const std::string& text);
  // Tells what was left out in the spans that are over.
  void tellWhatIsDue();
  // Tells all that was left out, for the end.
  void tellAll();
  // When there is something to tell next; nothing when nothing was left out.
  std::optional<Clock::time_point> nextDue() const;

 private:
  struct Span {
    Clock::time_point end;
    unsigned written = 0;
    unsigned leftOut = 0;
    PrivilegedCaller lastCaller = {};
    std::string last;
  };
  using Key = std::pair<RequestEnd, std::optional<uid_t>>;  // no user: all further ones

  Key keyFor(RequestEnd end, uid_t user) const;
  void tell(const Key& key, const Span& span);

  RequestLogger write_;
  TimeNow now_;
  std::map<Key, Span> spans_;
};

}  // namespace fwplatform

#endif
