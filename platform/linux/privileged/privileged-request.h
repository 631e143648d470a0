// SPDX-License-Identifier: Apache-2.0
// The requests for privileged operations, and the one place that decides what may
// be asked for. A text that is not exactly of the form below is refused; nothing
// is guessed or corrected. Stateless; any thread.
//
//   mount    "-o OPTIONS IMAGE DIRECTORY"             + NUL
//   mknod    "-m 0660 -Z * /dev/loopN  b 7 N"         + NUL
//   umount   "DIRECTORY", no NUL
//
// IMAGE lies directly in the package directory, DIRECTORY directly in its emps/.
#ifndef PLATFORM_LINUX_PRIVILEGED_REQUEST_H
#define PLATFORM_LINUX_PRIVILEGED_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace fwplatform {

inline constexpr char kPackageDirectory[] = "/opt/usr/apps/appbinarymanager";
inline constexpr char kMountParent[] = "/opt/usr/apps/appbinarymanager/emps";
inline constexpr unsigned kHighestLoopNumber = 249;
// Bytes of the longest text, with its NUL.
inline constexpr std::size_t kPrivilegedTextCapacity = 1024;

enum class PrivilegedOperation : std::uint8_t { Mount = 1, Mknod = 2, Umount = 3 };

// The operation's name for messages, "unknown operation" for any other value.
const char* nameOf(PrivilegedOperation operation);

// Names are single file names, never paths.
struct MountRequest {
  std::string imageName;
  std::string directoryName;
  bool noExec = false;
};

struct MknodRequest {
  unsigned loopNumber = 0;
};

struct UmountRequest {
  std::string directoryName;
};

using PrivilegedRequest = std::variant<MountRequest, MknodRequest, UmountRequest>;

// The request that a text asks for, or nothing, with the reason in refusal.
std::optional<PrivilegedRequest> parsePrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                                        std::string& refusal);

}  // namespace fwplatform

#endif
