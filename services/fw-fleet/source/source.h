// SPDX-License-Identifier: Apache-2.0
// Where the wishes for the set come from, and who is told what came of them. One thread.
#ifndef FW_FLEET_SOURCE_H
#define FW_FLEET_SOURCE_H

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client.h"
#include "documents.h"
#include "feedback.h"

namespace fleet {

template <typename Document>
struct Answered {
  std::optional<Document> document;  // there when the meaning is Good
  Meaning meaning = Meaning::Later;
  std::optional<std::chrono::seconds> retryAfter;
  std::string sentence;  // when it is not Good, or when there is something to say all the same
};

class Source {
 public:
  virtual ~Source() = default;

  // Whether it hears how actions end. One that does not offers what is over again and again.
  virtual bool hearsEnds() const = 0;
  // Whether what it offered may still be worked on, as far as it is known without asking.
  virtual bool stands(const std::string& id) const = 0;

  virtual Answered<ddi::Poll> poll() const = 0;
  // Addresses are those of a poll's answer.
  virtual Answered<ddi::Deployment> deployment(const std::string& address) const = 0;
  virtual Answered<ddi::Deployment> confirmation(const std::string& address) const = 0;
  // The identity of the action that is to be stopped.
  virtual Answered<std::string> cancel(const std::string& address) const = 0;
  virtual Reply installed(const std::string& address) const = 0;
  virtual Reply attributes(const std::string& address,
                           const std::map<std::string, std::string>& attributes) const = 0;

  virtual Reply tell(const std::string& id, const ddi::Feedback& feedback) const = 0;
  virtual Reply answerCancel(const std::string& id, const ddi::Feedback& feedback) const = 0;
  virtual Reply confirm(const std::string& id, bool isConfirmed,
                        const std::vector<std::string>& details) const = 0;
};

}  // namespace fleet

#endif
