// SPDX-License-Identifier: Apache-2.0
#include "fw-update-types.h"

#include "text-buffer.h"

FWUpdateItem::FWUpdateItem(const char* fileName, const char* activeVersion, const char* fwName) {
  copyBounded(file_name, fileName);
  copyBounded(version, activeVersion);
  copyBounded(fw_name, fwName);
}

FWUpdateItem::FWUpdateItem(const FWUpdateItem& other)
    : FWUpdateItem(other.file_name, other.version, other.fw_name) {}

FWInformation::~FWInformation() = default;
