// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "trials.h"

namespace fwmodule {

const char* nothing(const Subject& /*subject*/) {
  return nullptr;
}

const char* isExtension(const Subject& subject) {
  return subject.extension ? "an EXT- module finds its images itself" : nullptr;
}

const char* isOrdinary(const Subject& subject) {
  return subject.extension ? nullptr : "";
}

const char* knowsNoVersion(const Subject& subject) {
  return subject.activeVersion.empty() ? "it does not tell its version" : nullptr;
}

const char* takesNoVersion(const Subject& subject) {
  if (const char* const extension = isExtension(subject)) {
    return extension;
  }
  if (subject.firmware.empty()) {
    return "it has no firmware name";
  }
  return subject.newerVersion.empty() ? "it needs no version, as far as found" : nullptr;
}

const char* takesNoImage(const Subject& subject) {
  if (const char* const other = takesNoVersion(subject)) {
    return other;
  }
  return subject.updates ? nullptr : "no image could be written";
}

const char* cutsNoPower(const Subject& subject) {
  if (!subject.cutPower) {
    return "it was not asked for; --power-cut does";
  }
  if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0 ||
      access("/dev/loop-control", R_OK | W_OK) != 0) {
    return "recording a disk takes root, FUSE and loop devices";
  }
  return takesNoImage(subject);
}

}  // namespace fwmodule
