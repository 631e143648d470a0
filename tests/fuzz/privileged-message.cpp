// SPDX-License-Identifier: Apache-2.0
// Fuzz target: a packet at the privileged service's socket, or at its client's. What
// may be asked for is written down here a second time, as patterns.
#include <algorithm>
#include <initializer_list>
#include <regex>
#include <string>
#include <variant>

#include "fuzz-target.h"
#include "privileged/privileged-protocol.h"
#include "privileged/privileged-request.h"

namespace {

using fwplatform::MknodRequest;
using fwplatform::MountRequest;
using fwplatform::PrivilegedOperation;
using fwplatform::PrivilegedRequest;
using fwplatform::UmountRequest;

// One name as the patterns below allow it; 255 is the longest of a file.
#define NAME "[A-Za-z0-9_-][A-Za-z0-9._-]{0,254}"
#define PACKAGES "/opt/usr/apps/appbinarymanager/"
#define OPTION "(?:ro|loop|nodev|nosuid|noexec)"

constexpr const char* kMountPattern =
    "-o (" OPTION "(?:," OPTION "){3,4}) " PACKAGES "(" NAME ") " PACKAGES "emps/(" NAME ")";
constexpr const char* kNodePattern = "-m 0660 -Z \\* /dev/loop(\\d|[1-9]\\d|1\\d\\d|2[0-4]\\d)  b 7 \\1";
constexpr const char* kUnmountPattern = PACKAGES "emps/(" NAME ")";

bool hasEach(const std::string& options, std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    if (options.find(name) == std::string::npos) {
      return false;
    }
  }
  return true;
}

// Four are required, and of five there is none twice.
bool areMountOptions(const std::string& options) {
  const bool five = std::count(options.begin(), options.end(), ',') == 4;
  return hasEach(options, {"ro", "loop", "nodev", "nosuid"}) && (!five || hasEach(options, {"noexec"}));
}

struct Expected {
  const std::string& text;

  bool operator()(const MountRequest& request) const {
    std::smatch match;
    return std::regex_match(text, match, std::regex(kMountPattern)) && areMountOptions(match[1]) &&
           match[2] == request.imageName && match[3] == request.directoryName &&
           request.noExec == hasEach(match[1], {"noexec"});
  }
  bool operator()(const MknodRequest& request) const {
    std::smatch match;
    return std::regex_match(text, match, std::regex(kNodePattern)) &&
           std::stoul(match[1]) == request.loopNumber;
  }
  bool operator()(const UmountRequest& request) const {
    std::smatch match;
    return std::regex_match(text, match, std::regex(kUnmountPattern)) && match[1] == request.directoryName;
  }
};

// The text without the NUL that two of the operations end it with.
bool isExpected(PrivilegedOperation operation, std::string text, const PrivilegedRequest& request) {
  if (operation != PrivilegedOperation::Umount) {
    text.pop_back();
  }
  return std::visit(Expected{text}, request);
}

bool acceptsRequest(std::string_view input) {
  const auto message = fwplatform::decodePrivilegedMessage(input);
  if (!message) {
    return false;
  }
  fuzz::require(fwplatform::encodePrivilegedMessage(message->operation, message->text) == input,
                "a message that is read is written the same");
  std::string refusal;
  const auto request = fwplatform::parsePrivilegedRequest(message->operation, message->text, refusal);
  fuzz::require(request.has_value() == refusal.empty(), "what is refused, and nothing else, has a reason");
  if (request) {
    fuzz::require(isExpected(message->operation, std::string(message->text), *request),
                  "only what is allowed is accepted, and as it stands");
  }
  return request.has_value();
}

bool acceptsAnswer(std::string_view input) {
  const auto answer = fwplatform::decodePrivilegedAnswer(input);
  if (answer) {
    fuzz::require(fwplatform::encodePrivilegedAnswer(*answer) == input,
                  "an answer that is read is written the same");
  }
  return answer.has_value();
}

}  // namespace

void fuzz::prepare(const std::vector<std::string>&) {}

bool fuzz::accepts(std::string_view input) {
  const bool request = acceptsRequest(input);
  return acceptsAnswer(input) || request;
}
