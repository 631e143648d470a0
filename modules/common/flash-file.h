// SPDX-License-Identifier: Apache-2.0
// The flash of a component: the file that holds its active firmware, and the
// new file that an update writes beside it (docs/formats/component-flash.md).
// readActiveFlash may be called from any thread at any time. A NewFlash belongs
// to the update that made it, which holds the component's update lock.
// All of it throws std::system_error; EBADMSG says that a flash is corrupt.
#ifndef MODULES_COMMON_FLASH_FILE_H
#define MODULES_COMMON_FLASH_FILE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "posix-file.h"

namespace fwcomponent {

constexpr std::size_t kFlashHeaderSize = 256;
constexpr std::size_t kVersionCapacity = 128;  // with the final NUL

using FlashHeaderBytes = std::array<unsigned char, kFlashHeaderSize>;

struct FlashHeader {
  std::string version;     // at most 127 characters
  std::uint64_t size = 0;  // bytes of content
  std::uint32_t crc = 0;   // of the content, as in "info.json"
};

FlashHeaderBytes encodeHeader(const FlashHeader& header);
FlashHeader decodeHeader(const FlashHeaderBytes& bytes);

// Nothing when the component has no flash yet. The content is not read.
std::optional<FlashHeader> readActiveFlash(const std::string& firmwareName);

// Its steps are called in the order of their declaration. Until activate the old
// firmware is the active one, and the destructor removes the new file.
class NewFlash {
 public:
  explicit NewFlash(const std::string& firmwareName);
  ~NewFlash();
  NewFlash(const NewFlash&) = delete;
  NewFlash& operator=(const NewFlash&) = delete;

  void append(const unsigned char* data, std::size_t length);

  // Writes the header, waits until everything has reached the medium, and goes
  // back to the start of the content.
  void finishWriting(const FlashHeader& header);

  // Reads the content back from the medium; 0 at its end.
  std::size_t readBack(unsigned char* buffer, std::size_t capacity);

  // Replaces the active flash in one step.
  void activate();

 private:
  void startSending();

  std::string activePath_;
  std::string newPath_;
  FileDescriptor directory_;
  FileDescriptor file_;
  off_t sent_ = kFlashHeaderSize;  // up to here the medium takes it already
  off_t unsent_ = 0;
  bool activated_ = false;
};

}  // namespace fwcomponent

#endif
