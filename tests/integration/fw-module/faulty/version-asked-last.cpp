// SPDX-License-Identifier: Apache-2.0
// It takes the version that it was asked about last for the image's.
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
  return sound::activate(image, sound::versionToWrite());
}
