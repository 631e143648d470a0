// SPDX-License-Identifier: Apache-2.0
// The module of the remote control. "EXT-" in its file name makes it run its own
// procedure: it gets no image from the library, but finds one in the firmware
// directory itself, decides itself, and writes it like any other component.
#include <cerrno>
#include <string>

#include "image-information.h"
#include "module-entry.h"
#include "posix-file.h"

namespace {

constexpr const char* kImagePath = "/lib/firmware/ext/remotefw/remotefw.bin";

struct Information {
  std::string version;
  unsigned int crc;
};

Information statedInformation() {
  const Json::Value root = fwcomponent::readInformation(fwcomponent::informationBeside(kImagePath));
  if (!root["version"].isString() || !root["crc"].isUInt()) {
    fwcomponent::fail(EBADMSG, "info.json without version or crc");
  }
  return {root["version"].asString(), root["crc"].asUInt()};
}

void runOwnProcedure(fwcomponent::Component& remote) {
  const Information information = statedInformation();
  if (remote.isNewer(information.version.c_str())) {
    remote.updateFromFile(kImagePath, information.crc);
  }
}

}  // namespace

fwcomponent::Component& fwcomponent::thisComponent() {
  static Component remote({"", "remotefw", /*expectedSeconds=*/30, /*kibPerSecond=*/32});
  return remote;
}

// The arguments are the module's own library name and 0.
int doUpdate(const char* /*path*/, unsigned long /*value*/) {
  return fwcomponent::answerUpdate([] { runOwnProcedure(fwcomponent::thisComponent()); });
}
