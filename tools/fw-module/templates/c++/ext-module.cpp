// The update module @NAME@: what the update library calls. "EXT-" in its name makes it
// run a procedure of its own: it gets no image from the library, but finds one in the
// firmware directory itself and decides itself.
#include <fw-update-module.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "component.h"
#include "reason.h"

namespace {

constexpr int kTextSize = 128;  // of every text that the library gets or hands over

constexpr char kImage[] = "/lib/firmware/ext/@FIRMWARE@/@FIRMWARE@.bin";
constexpr char kInformation[] = "/lib/firmware/ext/@FIRMWARE@/info.json";

// Every entry point answers 0 or a negative errno value, which errno holds as well: the
// library logs both. No exception gets out.
template <typename Body>
int answer(Body body) noexcept {
  int result = -EIO;
  try {
    result = body();
  } catch (...) {
  }
  if (result != 0)
    errno = -result;
  return result;
}

bool isVersion(const std::string& text) {
  return !text.empty() && text.size() < kTextSize &&
         text.find_first_not_of("0123456789.") == std::string::npos && text.front() != '.';
}

int compareWithActive(const std::string& version, int& need) {
  std::string active;
  if (!isVersion(version))
    return -EINVAL;
  if (const int result = component::readVersion(active); result != 0)
    return result;
  need = ::strverscmp(version.c_str(), active.c_str()) > 0 ? 1 : 0;
  return 0;
}

// The value of one member of info.json, without quotes; empty when it is not there.
std::string member(const std::string& json, const std::string& name) {
  const std::size_t key = json.find('"' + name + '"');
  const std::size_t colon = json.find(':', key);
  const std::size_t begin = json.find_first_not_of(" \t\n\"", colon + 1);
  if (key == std::string::npos || colon == std::string::npos || begin == std::string::npos)
    return "";
  return json.substr(begin, json.find_first_of(" \t\n\",}", begin) - begin);
}

int runOwnProcedure() {
  std::FILE* file = std::fopen(kInformation, "re");  // close-on-exec: not the module's process
  if (file == nullptr)
    return failed(kInformation, errno);
  char text[4096];
  const std::string json(text, std::fread(text, 1, sizeof text, file));
  std::fclose(file);
  const std::string version = member(json, "version");
  int need = 0;
  if (const int result = compareWithActive(version, need); result != 0)
    return failed("comparing the version of info.json", -result);
  if (need == 0)
    return 0;
  return component::update(kImage, std::strtoul(member(json, "crc").c_str(), nullptr, 10), version);
}

}  // namespace

// Both texts are the caller's and go away: copy what you need later.
int setContext(const char* /*libName*/, CallerTypes /*caller*/, char* /*data*/) {
  return 0;
}

// Nobody asks an EXT- module, but the entry point must be there.
int getEMPID(char* out) {
  out[0] = '\0';
  return 0;
}

int getActiveVersion(char* out) {
  return answer([out] {
    std::string version;
    const int result = component::readVersion(version);
    std::snprintf(out, kTextSize, "%s", version.c_str());
    return result;
  });
}

int checkVersion(const char* version, int* need) {
  return answer([version, need] { return compareWithActive(version, *need); });
}

// The arguments are the module's own library name and 0.
int doUpdate(const char* /*path*/, unsigned long /*value*/) {
  return answer(runOwnProcedure);
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component::progress();
  return 0;
}
