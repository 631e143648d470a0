// SPDX-License-Identifier: Apache-2.0
// The note beside a part of an image, NAME.img.part.info: of which file on the server
// it is a part, and how much of it can be relied on. Plain values and stateless
// functions.
#ifndef FW_DOWNLOAD_PART_NOTE_H
#define FW_DOWNLOAD_PART_NOTE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fwdownload {

inline constexpr std::size_t kLargestNote = std::size_t{16} * 1024;

// Whether it can stand in a header, and comes out of a note as it was put in: printable
// ASCII.
bool isMark(std::string_view validator);

// Which file on the server. Without a validator nothing can tell whether the file is
// the same next time.
struct Origin {
  std::string url;
  std::string validator;  // as an If-Range header has it: a strong ETag or a date
  std::int64_t total = 0;

  bool canBeContinued() const { return isMark(validator) && total > 0; }
};

struct PartNote {
  Origin origin;
  std::int64_t synced = 0;  // bytes that were put on the disk
  std::string boot;         // the start of the system that it was written in
};

std::string noteText(const PartNote& note);
// Nothing for what is no note, or none that a part can be continued by.
std::optional<PartNote> parseNote(const std::string& text);

}  // namespace fwdownload

#endif
