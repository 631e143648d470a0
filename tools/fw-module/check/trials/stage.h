// SPDX-License-Identifier: Apache-2.0
// Where a trial takes place: in a child process, on a device of its own, with the module
// loaded; and what trials share. The trial's own thread only.
#ifndef FW_MODULE_CHECK_TRIALS_STAGE_H
#define FW_MODULE_CHECK_TRIALS_STAGE_H

#include <cstddef>
#include <string>

#include "census.h"
#include "loaded-module.h"
#include "subject.h"
#include "transcript.h"

namespace fwmodule {

struct Stage {
  const Subject& subject;
  Transcript& transcript;
  LoadedModule& module;
};

struct Image {
  std::string path;
  unsigned long crc = 0;
  std::size_t size = 0;
};

// Random bytes of that size, or the caller's image.
inline constexpr std::size_t kUsualImage = std::size_t{64} * 1024;
inline constexpr std::size_t kWatchedImage = std::size_t{1024} * 1024;  // for time to watch it
std::string imageBytes(const Subject& subject, const std::string& version, std::size_t size = kUsualImage);

// Writes bytes where the update library looks for the module's image, with the CRC of
// good ones in "info.json" beside it.
Image placeImage(const Subject& subject, const std::string& version, const std::string& bytes,
                 const std::string& good);
Image placeGoodImage(const Subject& subject, const std::string& version, std::size_t size = kUsualImage);

// As the update library does it: context and version first, then doUpdate on a thread of
// its own. The result of doUpdate, or of what failed before.
int update(const Stage& stage, const std::string& version, const Image& image, const char* situation);

// Tells about files and threads that the call left behind since "before".
void judgeLeftovers(const Stage& stage, const Census& before, EntryPoint entryPoint, const std::string& when);

// "name answered -5", "name let an exception out".
std::string answered(EntryPoint entryPoint, int result);

// Tells about a failure of which callers learn nothing but a number. Right after the call that
// answered; 0 is no failure.
void judgeReason(const Stage& stage, EntryPoint entryPoint, int result, const std::string& situation);

// Tells about a failure's code that callers cannot tell from the library's own.
void judgeResultCode(const Stage& stage, EntryPoint entryPoint, int result);

}  // namespace fwmodule

#endif
