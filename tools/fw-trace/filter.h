// SPDX-License-Identifier: Apache-2.0
// Which messages to show. Any thread.
#ifndef FW_TRACE_FILTER_H
#define FW_TRACE_FILTER_H

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include "message.h"

namespace tracetool {

// As the options say it; an empty text asks for nothing.
struct Wanted {
  std::string module;
  std::string function;
  std::string since;
  std::string until;
};

class Filter {
 public:
  explicit Filter(const Wanted& wanted);

  // Whether it has to see the messages before it can judge one.
  bool hasToLearn() const { return hasToLearn_; }
  // Which firmware name belongs to which module; every message may be shown to it.
  void learn(const Message& message);
  // A time without a day is on this moment's.
  void takeDay(std::int64_t moment);

  bool accepts(const Message& message) const;

 private:
  bool namesModule(const Message& message) const;

  Wanted wanted_;
  bool hasToLearn_;
  std::set<std::string> names_;  // of the module wanted; empty: any
  std::int64_t since_ = std::numeric_limits<std::int64_t>::min();
  std::int64_t until_ = std::numeric_limits<std::int64_t>::max();
};

}  // namespace tracetool

#endif
