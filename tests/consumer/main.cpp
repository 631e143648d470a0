// SPDX-License-Identifier: Apache-2.0
// Lists the modules of the device that it runs on, and uses each exported header.
#include <fw-update-cipher.h>
#include <fw-update-common.h>
#include <fw-update-control.h>
#include <fw-update-mount-manager.h>
#include <fw-update-symbol-manager.h>

#include <cstdio>

int main() {
  for (const FWUpdateItem& item : FWUpdateContorl::getInstance()->fw_getItemList()) {
    std::printf("%s %s %s\n", item.file_name, item.fw_name, item.version);
  }
  std::printf("lock %s, manager %s, /tmp is%s a directory, %s\n", semName,
              FWUpdateSymbolManager::getInstance()->getIsReady(false) ? "ready" : "not ready",
              IsDir("/tmp") ? "" : " not", cipher_buf_all == nullptr ? "no buffer" : "a buffer");
  return 0;
}
