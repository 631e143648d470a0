// SPDX-License-Identifier: Apache-2.0
// The options of a command as rows of a table: what is parsed, shown in help texts and
// manual pages, and completed comes from here. Rows are constants.
#ifndef TOOLS_SHARED_FRAME_OPTION_H
#define TOOLS_SHARED_FRAME_OPTION_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace frame {

// What a shell completes a value with.
enum class Completes { ByValueName, Modules };

// A row without the place that its value goes to.
struct OptionInfo {
  const char* declaration = nullptr;  // "-o,--output FILE", "--fresh"; an argument is one word: "NAME"
  const char* summary = nullptr;      // one that ends with a blank is completed by the words
  bool isRequired = false;
  bool showsDefault = false;
  std::int64_t lowest = 0;
  std::int64_t highest = 0;                                   // 0: no limits
  std::string (*problem)(const std::string& text) = nullptr;  // empty: the value is good
  std::vector<std::string> (*words)() = nullptr;              // all that the value can be
  const char* excluded = nullptr;                             // another option, by its name
  const char* needed = nullptr;
  Completes completes = Completes::ByValueName;

  std::vector<std::string> names() const;  // none: an argument
  std::string valueName() const;           // empty: a flag
  std::string text() const;                // the summary, words and all
};

using Place = std::variant<bool*, int*, unsigned int*, std::int64_t*, std::string*,
                           std::optional<std::string>*, std::vector<std::string>*>;

struct BoundOption {
  const OptionInfo* info;
  Place place;

  bool takesMany() const { return std::holds_alternative<std::vector<std::string>*>(place); }
};

template <typename Options>
using Member = std::variant<bool Options::*, int Options::*, unsigned int Options::*, std::int64_t Options::*,
                            std::string Options::*, std::optional<std::string> Options::*,
                            std::vector<std::string> Options::*>;

template <typename Options>
struct Option : OptionInfo {
  Member<Options> member;

  constexpr Option(const char* declared, Member<Options> place, const char* says)
      : OptionInfo{declared, says}, member(place) {}

  constexpr Option required() const {
    Option changed = *this;
    changed.isRequired = true;
    return changed;
  }
  // The value that stands in the place already, in the help text.
  constexpr Option withDefault() const {
    Option changed = *this;
    changed.showsDefault = true;
    return changed;
  }
  constexpr Option within(std::int64_t least, std::int64_t most) const {
    Option changed = *this;
    changed.lowest = least;
    changed.highest = most;
    return changed;
  }
  // The function says what is wrong with the text of a value.
  constexpr Option checked(std::string (*check)(const std::string&)) const {
    Option changed = *this;
    changed.problem = check;
    return changed;
  }
  constexpr Option of(std::vector<std::string> (*all)()) const {
    Option changed = *this;
    changed.words = all;
    return changed;
  }
  constexpr Option excluding(const char* other) const {
    Option changed = *this;
    changed.excluded = other;
    return changed;
  }
  constexpr Option needing(const char* other) const {
    Option changed = *this;
    changed.needed = other;
    return changed;
  }
  constexpr Option completedWith(Completes what) const {
    Option changed = *this;
    changed.completes = what;
    return changed;
  }
};

// Some rows of a table.
template <typename Row>
class List {
 public:
  constexpr List() = default;
  template <std::size_t Count>
  constexpr List(const Row (&rows)[Count])  // NOLINT(google-explicit-constructor)
      : begin_(rows), end_(rows + Count) {}

  constexpr const Row* begin() const { return begin_; }
  constexpr const Row* end() const { return end_; }

 private:
  const Row* begin_ = nullptr;
  const Row* end_ = nullptr;
};

}  // namespace frame

#endif
