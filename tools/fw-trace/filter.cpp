// SPDX-License-Identifier: Apache-2.0
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

Filter::Filter(const Wanted& wanted)
    : wanted_(wanted), hasToLearn_(!wanted.module.empty() || !wanted.since.empty() || !wanted.until.empty()) {
  if (!wanted.module.empty()) {
    names_.insert(wanted.module);
  }
  takeDay(0);
}

void Filter::learn(const Message& message) {
  const auto& values = message.values;
  if (names_.empty() || message.format != MESSAGE_CHECK_BEGINS || values.size() != 2) {
    return;
  }
  if (names_.count(values[0].text) + names_.count(values[1].text) > 0 && !values[1].text.empty()) {
    names_.insert({values[0].text, values[1].text});
  }
}

void Filter::takeDay(std::int64_t moment) {
  since_ = parseTime(wanted_.since, moment).value_or(since_);
  until_ = parseTime(wanted_.until, moment).value_or(until_);
}

bool Filter::namesModule(const Message& message) const {
  return names_.empty() || std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
           return holdsWord(message.text, name);
         });
}

bool Filter::accepts(const Message& message) const {
  return message.time >= since_ && message.time <= until_ &&
         (wanted_.function.empty() || message.function == wanted_.function) && namesModule(message);
}

}  // namespace tracetool
