// SPDX-License-Identifier: Apache-2.0
#include "isolation/child-record.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

namespace tool {
namespace {

// After the library should have given up.
constexpr Seconds kGreatestMargin{10};

enum class Limit {
  Patience,  // the library waits for ever for this, and nothing takes long here
  Library,   // the library gives up by itself
  Margin,    // the library is not asked
  None,      // may take as long as it likes
};

constexpr struct StepInfo {
  Step step;
  const char* id;
  const char* words;
  Limit limit;
} kSteps[] = {
    {Step::Start, "start", "while the modules were being loaded", Limit::Patience},
    {Step::Load, "load", "while it was being loaded", Limit::Patience},
    {Step::Version, "version", "when it was asked for its version", Limit::Patience},
    {Step::Check, "check", "when it was asked whether it needs the image", Limit::Patience},
    {Step::Wait, "wait", "while its update waited for another one", Limit::None},
    {Step::Write, "write", "while it was updating", Limit::Library},
    {Step::Procedure, "procedure", "in its own update procedure", Limit::None},
    {Step::Package, "package", "while it was writing its package", Limit::None},
    {Step::Finish, "finish", "after its update", Limit::Patience},
    {Step::End, "end", "while the program ended", Limit::Margin},
};

const StepInfo& infoOf(Step step) {
  const auto* const found = std::find_if(std::begin(kSteps), std::end(kSteps),
                                         [step](const StepInfo& info) { return info.step == step; });
  return found == std::end(kSteps) ? kSteps[0] : *found;
}

template <std::size_t Size>
std::string textOf(const char (&field)[Size]) {
  return std::string(field, strnlen(field, Size));
}

}  // namespace

std::string moduleOf(const ChildRecord& record) {
  return textOf(record.module);
}

std::vector<std::string> mountedBy(const ChildRecord& record) {
  std::vector<std::string> lines;
  std::istringstream stream(textOf(record.mounted));
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::optional<int> resultOf(const ChildRecord& record) {
  const std::uint32_t result = record.result;
  return result == 0 ? std::nullopt : std::optional<int>(static_cast<int>(result - 1));
}

std::optional<Seconds> allowedSilence(const ChildRecord& record, Seconds patience) {
  const Limit limit = infoOf(record.step).limit;
  const std::uint32_t givesUpAt = record.givesUpAt;
  if (limit == Limit::None) {
    return std::nullopt;
  }
  if (limit == Limit::Library && givesUpAt != 0) {
    return Seconds(givesUpAt - 1) + std::min(patience, kGreatestMargin);
  }
  return limit == Limit::Margin ? std::min(patience, kGreatestMargin) : patience;
}

const char* wordsOf(Step step) {
  return infoOf(step).words;
}

const char* idOf(Step step) {
  return infoOf(step).id;
}

}  // namespace tool
