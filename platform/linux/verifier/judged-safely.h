// SPDX-License-Identifier: Apache-2.0
// What an entry point of the verification library does around a judgement.
#ifndef FW_PLATFORM_JUDGED_SAFELY_H
#define FW_PLATFORM_JUDGED_SAFELY_H

#include <openssl/err.h>

#include <exception>

namespace fwpackage {

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
