// SPDX-License-Identifier: Apache-2.0
// What the command line of fw-pack says. Plain values.
#ifndef FW_PACK_OPTIONS_H
#define FW_PACK_OPTIONS_H

#include <cstdint>
#include <string>

#include "package-trailer.h"
#include "public-keys.h"

namespace fwpack {

struct Options {
  bool json = false;
  std::string input;
  std::string output;
  std::string version;
  unsigned int expectedTime = 0;
  std::string updateClass;  // empty: it is not stated
  std::string name;         // a firmware name, or a package identifier
  std::string model;
  std::string minimumVersion;
  int format = fwpackage::kNewestFormat;
  std::string type;
  std::int64_t number = 0;  // of a release
  std::string issued;       // empty: now
  std::string expires;
  std::string keyFile;
  std::string signingKeyFile;
  bool isUnsigned = false;
  std::string publicKeyFile;
  std::string keyDirectory = fwpackage::kKeyDirectory;
};

}  // namespace fwpack

#endif
