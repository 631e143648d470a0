// The module of the remote control. "EXT-" in its file name makes it run its own
// procedure: it gets no image from the library, but finds one in the firmware
// directory itself, decides itself, and writes it like any other component.
#include <json/json.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "module-entry.h"
#include "posix-file.h"

namespace {

constexpr const char* kImagePath = "/lib/firmware/ext/remotefw/remotefw.bin";
constexpr const char* kInformationPath = "/lib/firmware/ext/remotefw/info.json";

struct Information {
  std::string version;
  unsigned int crc;
};

Information readInformation() {
  std::ifstream stream(kInformationPath, std::ios::binary);
  if (!stream) {
    fwcomponent::fail(ENOENT, kInformationPath);
  }
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors) || !root.isObject() ||
      !root["version"].isString() || !root["crc"].isUInt()) {
    fwcomponent::fail(EBADMSG, kInformationPath);
  }
  return {root["version"].asString(), root["crc"].asUInt()};
}

void runOwnProcedure(fwcomponent::Component& remote) {
  const Information information = readInformation();
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
  return fwcomponent::answer([] { runOwnProcedure(fwcomponent::thisComponent()); });
}
