// SPDX-License-Identifier: Apache-2.0
// The list of a release: which versions a maker's sets are to have, and the artifacts that bring them
// there, for a directory that anybody may serve. docs/formats/release-list.md. Plain values and
// functions; any thread.
#ifndef FW_IMAGE_RELEASE_LIST_H
#define FW_IMAGE_RELEASE_LIST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace image {

inline constexpr char kReleaseListFile[] = "releases.json";
inline constexpr char kArtifactDirectory[] =
    "artifacts";  // beside the list; each has its SHA-256 as its name
inline constexpr std::size_t kLargestReleaseList = std::size_t{1} << 20;
inline constexpr std::int64_t kLargestReleaseNumber = 999999999999;

struct ReleaseArtifact {
  std::string file;  // what it is called; never a path
  std::int64_t size = 0;
  std::string sha256;  // 64 digits, a to f small
};

struct ReleaseComponent {
  std::string name;  // of the firmware
  std::string version;
  std::string minimumVersion;  // once it is updated, older ones are refused; empty: as before
  std::string model;           // of the sets; empty: of any
  std::vector<ReleaseArtifact> artifacts;
};

struct ReleaseList {
  std::int64_t number = 0;  // greater than that of every list before it
  std::int64_t issued = 0;  // seconds since 1970
  std::int64_t expires = 0;
  std::vector<ReleaseComponent> components;  // in the order of their updates
};

std::string toText(const ReleaseList& list);

struct ReleaseListRead {
  std::optional<ReleaseList> list;
  std::string problem;   // a clause, when there is no list
  bool isNewer = false;  // it is a list, of a format that is not known yet
};

ReleaseListRead parseReleaseList(const std::string& text);

// Whether the text says of itself that it is such a list, good or not.
bool isReleaseList(const std::string& text);

// What a file of an artifact may be called: 1 to 128 ASCII letters, digits, ".", "_" and "-", and no "."
// first.
bool isArtifactName(const std::string& name);

// "2026-11-22T12:00:00Z", from the year 1970 to 9999. Nothing for any other text, also of a day that there is
// not.
std::optional<std::int64_t> parseTime(const std::string& text);
std::string timeText(std::int64_t seconds);

}  // namespace image

#endif
