// SPDX-License-Identifier: Apache-2.0
// What the set says to the fleet's server, as the text of a request. Whatever is told, the text is
// one that every server takes: within its quotas, valid, and without markup. Plain values and
// functions; any thread.
#ifndef FW_FLEET_DDI_FEEDBACK_H
#define FW_FLEET_DDI_FEEDBACK_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fleet::ddi {

// The server counts the code as one of them.
inline constexpr std::size_t kMostMessages = 50;
inline constexpr std::size_t kLongestMessage = 512;  // in UTF-16, which servers count in
inline constexpr std::size_t kMostAttributes = 100;
inline constexpr std::size_t kLongestAttribute = 128;

enum class Execution { Download, Downloaded, Proceeding, Scheduled, Resumed, Closed, Rejected };
enum class Finished { None, Success, Failure };

// Only what is closed has a result; without one a server would take it for installed, so a closed
// action without a result is told as failed.
struct Feedback {
  Execution execution = Execution::Proceeding;
  Finished finished = Finished::None;
  std::optional<int> code;
  std::vector<std::string> details;
  std::int64_t time = 0;  // ms since 1970
};

std::string textOf(const Feedback& feedback);

std::string confirmationText(bool isConfirmed, const std::vector<std::string>& details);

// What the set tells about itself. Empty when there is nothing: such a request is not taken.
std::string attributesText(const std::map<std::string, std::string>& attributes);

}  // namespace fleet::ddi

#endif
