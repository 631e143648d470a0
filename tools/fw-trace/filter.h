// Which messages to show. Any thread.
#ifndef FW_TRACE_FILTER_H
#define FW_TRACE_FILTER_H

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "entry.h"

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
  // entries: in time order; a time without a day is on the day of the last one. They
  // also tell which firmware name belongs to which module.
  Filter(const Wanted& wanted, const std::vector<Entry>& entries);

  bool accepts(const Message& message) const;

 private:
  bool namesModule(const Message& message) const;

  std::set<std::string> names_;  // of the module wanted; empty: any
  std::string function_;
  std::int64_t since_ = std::numeric_limits<std::int64_t>::min();
  std::int64_t until_ = std::numeric_limits<std::int64_t>::max();
};

}  // namespace tracetool

#endif
