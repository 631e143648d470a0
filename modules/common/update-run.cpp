// SPDX-License-Identifier: Apache-2.0
#include "update-run.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include "image-crc.h"

namespace fwcomponent {
namespace {

constexpr std::size_t kBlockSize = std::size_t{64} * 1024;
constexpr unsigned int kNotYetActive = 99;
constexpr unsigned int kActive = 100;

}  // namespace

UpdateRun::UpdateRun(const std::string& firmwareName)
    : firmwareName_(firmwareName),
      progress_(firmwareName),
      hardware_(readHardwareDescription(firmwareName)),
      buffer_(kBlockSize) {}

void UpdateRun::writeImage(const Image& image, const std::string& version,
                           std::optional<unsigned long> expectedCrc) {
  if (image.size == 0) {
    fail(ENODATA, "the image is empty");
  }
  total_ = 2 * image.size;
  NewFlash flash(firmwareName_);
  const std::uint32_t crc = writeContent(image, flash);
  if (crc != expectedCrc.value_or(crc)) {
    fail(EBADMSG, "the image has not the expected CRC");
  }
  flash.finishWriting({version, image.size, crc});
  verifyContent(flash, crc);
  flash.activate();
  reportActive();
}

// The new firmware is active: that its progress cannot be written is no failure any more.
void UpdateRun::reportActive() noexcept {
  try {
    progress_.report(kActive);
  } catch (const std::exception&) {
  }
}

std::uint32_t UpdateRun::writeContent(const Image& image, NewFlash& flash) {
  std::uint32_t crc = 0;
  advance(0);
  while (const std::size_t length = image.read(buffer_.data(), buffer_.size())) {
    flash.append(buffer_.data(), length);
    hardware_.takeBytes(length);
    crc = extendImageCrc(crc, buffer_.data(), length);
    advance(length);
  }
  if (done_ != image.size) {
    fail(EIO, "the image changed while it was read");
  }
  return crc;
}

void UpdateRun::verifyContent(NewFlash& flash, std::uint32_t writtenCrc) {
  std::uint32_t crc = 0;
  while (const std::size_t length = flash.readBack(buffer_.data(), buffer_.size())) {
    crc = extendImageCrc(crc, buffer_.data(), length);
    advance(length);
  }
  if (done_ != total_ || crc != writtenCrc) {
    fail(EIO, "the flash reads back differently");
  }
}

void UpdateRun::advance(std::size_t bytes) {
  done_ += bytes;
  const auto percent = static_cast<unsigned int>(std::min<std::uint64_t>(done_ * 100 / total_, kActive));
  progress_.report(std::min(percent, kNotYetActive));
  hardware_.reachPercent(percent);
}

}  // namespace fwcomponent
