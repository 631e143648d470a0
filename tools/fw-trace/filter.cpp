#include "filter.h"

#include <algorithm>

#include "library-messages.h"
#include "time-text.h"

namespace tracetool {
namespace {

bool isWord(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-';
}

// The name as a word of its own: libtuner is not in libtuner2.
bool holdsWord(const std::string& text, const std::string& word) {
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    if ((at == 0 || !isWord(text[at - 1])) && (end == text.size() || !isWord(text[end]))) {
      return true;
    }
  }
  return false;
}

}  // namespace

Filter::Filter(const Wanted& wanted, const std::vector<Entry>& entries) : function_(wanted.function) {
  if (!wanted.module.empty()) {
    names_.insert(wanted.module);
  }
  for (const Entry& entry : entries) {
    const auto& values = entry.message.values;
    if (names_.empty() || entry.message.format != MESSAGE_CHECK_BEGINS || values.size() != 2) {
      continue;
    }
    if (names_.count(values[0].text) + names_.count(values[1].text) > 0 && !values[1].text.empty()) {
      names_.insert({values[0].text, values[1].text});
    }
  }
  const std::int64_t day = entries.empty() ? 0 : entries.back().message.time;
  since_ = parseTime(wanted.since, day).value_or(since_);
  until_ = parseTime(wanted.until, day).value_or(until_);
}

bool Filter::namesModule(const Message& message) const {
  return names_.empty() || std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
           return holdsWord(message.text, name);
         });
}

bool Filter::accepts(const Message& message) const {
  return message.time >= since_ && message.time <= until_ &&
         (function_.empty() || message.function == function_) && namesModule(message);
}

}  // namespace tracetool
