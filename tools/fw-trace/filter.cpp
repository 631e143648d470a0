#include "filter.h"

#include <algorithm>

#include "known-messages.h"
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
    if ((at == 0 || !isWord(text[at - 1])) && (end == text.size() || !isWord(text[end])))
      return true;
  }
  return false;
}

}  // namespace

Filter::Filter(const Options& options, const std::vector<Entry>& entries) : function(options.function) {
  if (!options.module.empty())
    names.insert(options.module);
  for (const Entry& entry : entries) {
    const auto& values = entry.message.values;
    if (names.empty() || entry.message.format != known::needTry || values.size() != 2)
      continue;
    if (names.count(values[0].text) + names.count(values[1].text) > 0 && !values[1].text.empty())
      names.insert({values[0].text, values[1].text});
  }
  const std::int64_t day = entries.empty() ? 0 : entries.back().message.time;
  since = parseTime(options.since, day).value_or(since);
  until = parseTime(options.until, day).value_or(until);
}

bool Filter::namesModule(const Message& message) const {
  return names.empty() || std::any_of(names.begin(), names.end(),
                                      [&](const std::string& name) { return holdsWord(message.text, name); });
}

bool Filter::accepts(const Message& message) const {
  return message.time >= since && message.time <= until &&
         (function.empty() || message.function == function) && namesModule(message);
}

}  // namespace tracetool
