// SPDX-License-Identifier: Apache-2.0
// The messages between a client and the privileged service: one request and one
// answer for each connection of a Unix sequenced-packet socket. The bytes are
// described in docs/formats/privileged-protocol.md. Stateless; any thread.
#ifndef PLATFORM_LINUX_PRIVILEGED_PROTOCOL_H
#define PLATFORM_LINUX_PRIVILEGED_PROTOCOL_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "privileged/privileged-request.h"

namespace fwplatform {

inline constexpr char kPrivilegedSocketPath[] = "/run/fw-privileged.sock";
inline constexpr std::size_t kPrivilegedHeaderSize = 6;
inline constexpr std::size_t kPrivilegedMessageCapacity = kPrivilegedHeaderSize + kPrivilegedTextCapacity;
inline constexpr std::size_t kPrivilegedAnswerSize = 14;

struct PrivilegedMessage {
  PrivilegedOperation operation;
  std::string_view text;  // within the message's bytes
};

// status: 0 when the request was carried out, else a negative errno value.
// result: the operation's own result, 0 or an errno value.
struct PrivilegedAnswer {
  int status = 0;
  int result = 0;
};

std::string encodePrivilegedMessage(PrivilegedOperation operation, std::string_view text);
// Nothing when the bytes are no message. The operation may still be unknown and
// the text of any content.
std::optional<PrivilegedMessage> decodePrivilegedMessage(std::string_view bytes);

std::string encodePrivilegedAnswer(const PrivilegedAnswer& answer);
std::optional<PrivilegedAnswer> decodePrivilegedAnswer(std::string_view bytes);

}  // namespace fwplatform

#endif
