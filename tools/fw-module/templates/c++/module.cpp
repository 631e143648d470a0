// The update module @NAME@: what the update library calls.
#include <fw-update-module.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "component.h"
#include "reason.h"

namespace {

constexpr int kTextSize = 128;  // of every text that the library gets or hands over
constexpr int kExpectedSeconds = 30;

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

// The version of the image at path, from the "info.json" beside it. A query may have asked
// checkVersion about another one since.
std::string versionOfImage(const std::string& path) {
  const std::string information = path.substr(0, path.rfind('/') + 1) + "info.json";
  std::FILE* file = std::fopen(information.c_str(), "re");  // close-on-exec: not the module's process
  if (file == nullptr)
    return "";
  char text[4096];
  const std::string json(text, std::fread(text, 1, sizeof text, file));
  std::fclose(file);
  const std::size_t colon = json.find(':', json.find("\"version\""));
  const std::size_t begin = json.find_first_not_of(" \t\n\"", colon == std::string::npos ? colon : colon + 1);
  if (begin == std::string::npos)
    return "";
  return json.substr(begin, json.find_first_of(" \t\n\",}", begin) - begin);
}

}  // namespace

// Both texts are the caller's and go away: copy what you need later.
int setContext(const char* /*libName*/, CallerTypes /*caller*/, char* /*data*/) {
  return 0;
}

int getEMPID(char* out) {
  std::strcpy(out, "@IDENTIFIER@");
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

// Asked about images, and about packages that are only looked at.
int checkVersion(const char* version, int* need) {
  return answer([version, need] {
    std::string active;
    if (!isVersion(version))
      return -EINVAL;
    if (const int result = component::readVersion(active); result != 0)
      return result;
    *need = ::strverscmp(version, active.c_str()) > 0 ? 1 : 0;
    return 0;
  });
}

int doUpdate(const char* path, unsigned long value) {
  return answer([path, value] {
    const std::string version = versionOfImage(path);
    return isVersion(version) ? component::update(path, value, version)
                              : failed("info.json beside the image states no version", EINVAL);
  });
}

int getExpectedTime(int* seconds) {
  *seconds = kExpectedSeconds;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component::progress();
  return 0;
}
