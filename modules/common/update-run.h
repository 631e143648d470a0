// SPDX-License-Identifier: Apache-2.0
// One update of one component, from the first byte to the switch to the new
// firmware. It lives on the stack of the thread that updates and holds the
// component's update lock from its construction to its end. A process killed at
// any moment leaves the old firmware active and whole.
#ifndef MODULES_COMMON_UPDATE_RUN_H
#define MODULES_COMMON_UPDATE_RUN_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "flash-file.h"
#include "hardware.h"
#include "progress-file.h"

namespace fwcomponent {

struct Image {
  std::uint64_t size = 0;
  // Fills the buffer, or less of it at the image's end; returns the bytes given.
  std::function<std::size_t(unsigned char* buffer, std::size_t capacity)> read;
};

class UpdateRun {
 public:
  // Throws std::system_error: EBUSY while another update of the component runs.
  explicit UpdateRun(const std::string& firmwareName);

  // Throws std::system_error, and then the old firmware is still active: EBADMSG
  // when the image does not have the expected CRC, EIO when the flash reads back
  // differently. Without an expected CRC any image is accepted.
  void writeImage(const Image& image, const std::string& version, std::optional<unsigned long> expectedCrc);

 private:
  std::uint32_t writeContent(const Image& image, NewFlash& flash);
  void verifyContent(NewFlash& flash, std::uint32_t writtenCrc);
  void advance(std::size_t bytes);
  void reportActive() noexcept;

  const std::string firmwareName_;
  ProgressWriter progress_;
  Hardware hardware_;
  std::vector<unsigned char> buffer_;
  std::uint64_t total_ = 0;  // bytes to write and to verify
  std::uint64_t done_ = 0;
};

}  // namespace fwcomponent

#endif
