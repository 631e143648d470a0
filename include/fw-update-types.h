// SPDX-License-Identifier: Apache-2.0
// The types that clients, the platform's update service and modules share:
// who asks for an update, where its files lie, and the two plain records that
// describe a module and its firmware image. All are values; none owns anything
// outside itself, and none does any locking.
#ifndef FW_UPDATE_TYPES_H
#define FW_UPDATE_TYPES_H

#include <string>

#include "fw-update-export.h"

// Who asks for an update. The value reaches the module through setContext.
enum CallerTypes : int {
  CALLER_FACTORY = 0,
  CALLER_DEBUG = 1,
  CALLER_QUERY = 2,
  CALLER_USB_PACKAGE = 3,
  CALLER_UPGRADE_APP = 4,
  CALLER_LSM = 5,
  CALLER_RESERVED6 = 6,
  CALLER_UPGRADE_EPSOLUTION = 7,
};

// Where a module's firmware image and its "info.json" lie.
enum UPDATE_TYPE : int {
  UPDATE_TYPE_USB = 0,      // a mounted USB drive
  UPDATE_TYPE_EMP = 1,      // the module's mounted extension package
  UPDATE_TYPE_BUILTIN = 2,  // the read-only firmware directory
  UPDATE_TYPE_SBOX = 3,     // the sbox directory
};

// One module as clients see it. Each field is a zero-filled text of at most 127
// characters, so it always ends with a NUL; longer sources are cut.
class FW_UPDATE_EXPORT FWUpdateItem {
 public:
  // None of the three sources may be null.
  FWUpdateItem(const char* fileName, const char* version, const char* fwName);
  FWUpdateItem(const FWUpdateItem& other);
  FWUpdateItem& operator=(const FWUpdateItem& other) = default;

  char file_name[128];  // library name: the stem of the module's file
  char version[128];    // active firmware version, as the module wrote it
  char fw_name[128];    // firmware name: names the image's directory and file
};

// What an "info.json" says of the image beside it.
class FW_UPDATE_EXPORT FWInformation {
 public:
  FWInformation() = default;
  FWInformation(const FWInformation&) = default;
  FWInformation& operator=(const FWInformation&) = default;
  ~FWInformation();

  std::string reservedText1;  // stays empty
  std::string version;
  std::string reservedText2;      // stays empty
  unsigned int crc = 0;           // CRC-32 of the image
  unsigned int expectedTime = 0;  // seconds
};

#endif
