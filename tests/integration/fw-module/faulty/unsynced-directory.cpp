// SPDX-License-Identifier: Apache-2.0
// It waits until the disk has the new firmware's file, and not for the directory.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  std::string image;
  if (!sound::readFile(path, image)) {
    return sound::failure(ENOENT);
  }
  if (image.empty() || sound::crcOf(image) != value) {
    return sound::failure(EBADMSG);
  }
  std::ofstream flash(sound::kNewFlash, std::ios::binary | std::ios::trunc);
  flash << sound::statedVersion(path) << '\n' << image;
  flash.close();
  const int file = open(sound::kNewFlash, O_RDONLY | O_CLOEXEC);
  const bool stored = flash && fsync(file) == 0;
  close(file);
  if (stored && std::rename(sound::kNewFlash, sound::kFlash) == 0) {
    return 0;
  }
  std::remove(sound::kNewFlash);
  return sound::failure(ENOSPC);
}
