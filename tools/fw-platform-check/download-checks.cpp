#include <chrono>
#include <string>

#include "app-binary-manager.h"
#include "checks.h"

namespace conformance {
namespace {

bool requestDownload(const std::string& name) {
  return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name);
}

}  // namespace

// Whether the request is accepted depends on where the set gets its packages.
Finding downloadReturnsAtOnce() {
  const auto begin = std::chrono::steady_clock::now();
  requestDownload("platformcheckemp");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  return took.count() < 5 ? kept() : broken("the call took " + std::to_string(took.count()) + " s");
}

Finding downloadRefusesBadName() {
  for (const char* name : {"", "../platformcheck", "a b"}) {
    if (requestDownload(name)) {
      return broken("\"" + std::string(name) + "\" was accepted");
    }
  }
  return kept();
}

}  // namespace conformance
