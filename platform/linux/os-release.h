// SPDX-License-Identifier: Apache-2.0
// Reads the operating system's description, os-release(5). Stateless.
#ifndef PLATFORM_LINUX_OS_RELEASE_H
#define PLATFORM_LINUX_OS_RELEASE_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace fwplatform {

using OsRelease = std::map<std::string, std::string, std::less<>>;

// The assignments of an os-release text, with the shell's quoting taken off. The
// last assignment of a name counts. A line that is no assignment, or whose quotes
// do not close on it, is left out.
OsRelease parseOsRelease(std::string_view text);

// "MODEL-VERSION-BUILD", always with at least one "-":
//   MODEL    IMAGE_ID, else ID, else "linux"
//   VERSION  IMAGE_VERSION, else VERSION_ID
//   BUILD    BUILD_ID, else VERSION_CODENAME
// A part that is missing or empty is left out; with neither VERSION nor BUILD the
// text is "MODEL-unknown".
std::string softwareVersionText(const OsRelease& release);

// That of this system, from /etc/os-release or else /usr/lib/os-release. 0, or a
// negative errno value.
int readSoftwareVersion(std::string& text);

// Its text before the last "-", which names the kind of set: "MODEL-VERSION" when
// there is a build. Nothing when the system's description cannot be read.
std::optional<std::string> readSetModel();

}  // namespace fwplatform

#endif
