// What the verification library wants of the package at a path.
#ifndef FW_PLATFORM_WANTED_PACKAGE_H
#define FW_PLATFORM_WANTED_PACKAGE_H

#include <openssl/err.h>

#include <exception>
#include <string>

#include "package-signature.h"

namespace fwpackage {

// That it is for the component that the file's name says, and for this set.
Expectation wantedAt(const std::string& filePath);

// Runs judge, which says whether a package may be used; whatever goes wrong says no. The
// caller of the library may use OpenSSL too and look at its error queue.
template <typename Judge>
bool judgedSafely(const Judge& judge) {
  bool valid = false;
  ERR_set_mark();
  try {
    valid = judge();
  } catch (const std::exception&) {
    valid = false;
  }
  ERR_pop_to_mark();
  return valid;
}

}  // namespace fwpackage

#endif
