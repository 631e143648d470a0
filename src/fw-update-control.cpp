// SPDX-License-Identifier: Apache-2.0
#include "fw-update-control.h"

#include <string>

#include "callers.h"
#include "diagnostic-log.h"
#include "fw-update-symbol-manager.h"
#include "library-messages.h"
#include "text-buffer.h"

FWUpdateContorl* FWUpdateContorl::getInstance() {
  static FWUpdateContorl p_instance;
  return &p_instance;
}

FWUpdateContorl::FWUpdateContorl() {
  FWUpdateSymbolManager* const registry = FWUpdateSymbolManager::getInstance();
  if (!registry->getIsReady(false)) {
    FW_LOG(diagnostics::kError, MESSAGE_MODULES_NOT_LOADED);
  }
  registry->getFwItems(itemList);
}

FWUpdateContorl::~FWUpdateContorl() = default;

std::list<FWUpdateItem> FWUpdateContorl::fw_getItemList() {
  return itemList;
}

int FWUpdateContorl::fw_update_from_control(const char* name, CallerTypes caller, const char* data) {
  char buffer[kTextSize];
  copyBounded(buffer, data);

  const int result = FWUpdateSymbolManager::getInstance()->doUpdateFirmware(name, caller, buffer);

  // DATA carries the module's name, not the data; kept on purpose.
  FW_LOG(diagnostics::kError, MESSAGE_REQUEST_ENDS, caller, result, name);
  return result;
}

int FWUpdateContorl::fw_update_from_factory(const char* name, const char* data) {
  return fw_update_from_control(name, CALLER_FACTORY, data);
}

int FWUpdateContorl::fw_update_from_debug(const char* name, const char* data) {
  return fw_update_from_control(name, CALLER_DEBUG, data);
}

int FWUpdateContorl::fw_update_from_factory_automation(const char* name, const char* /*data*/) {
  return fw_update_from_control(name, CALLER_UPGRADE_APP, fwcallers::kFactoryAutomation);
}

int FWUpdateContorl::fw_update_from_upgrade_app(const char* name, const char* data) {
  return fw_update_from_control(name, CALLER_UPGRADE_APP, data);
}

int FWUpdateContorl::fw_update_from_lsm(const char* name, const char* data) {
  return fw_update_from_control(name, CALLER_LSM, data);
}

int FWUpdateContorl::fw_update_from_upgrade_epsolution(const char* name, const char* data) {
  return fw_update_from_control(name, CALLER_UPGRADE_EPSOLUTION, data);
}

int FWUpdateContorl::fw_getFWInformation(const char* name, char* version, char* fwName) {
  const int ret = FWUpdateSymbolManager::getInstance()->getFirmwareVersion(name, version, fwName);
  FW_LOG(diagnostics::kDebug, MESSAGE_INFORMATION_ANSWERED, ret, name);
  return ret;
}

int FWUpdateContorl::fw_getVersion(const char* name, char* version) {
  char fwName[kTextSize] = {};
  const int ret = FWUpdateSymbolManager::getInstance()->getFirmwareVersion(name, version, fwName);
  FW_LOG(diagnostics::kDebug, MESSAGE_VERSION_ANSWERED, ret, name);
  return ret;
}

std::list<FWUpdateItem> FWUpdateContorl::fw_getUpdateItemList(CallerTypes caller, char* data) {
  updateItemList.clear();
  FWUpdateSymbolManager::getInstance()->getUpdateFwItems(updateItemList, caller, data);
  for (const FWUpdateItem& item : updateItemList) {
    FW_LOG(diagnostics::kError, MESSAGE_UPDATE_LIST_ITEM, item.fw_name, item.version, item.file_name);
  }
  return updateItemList;
}

int FWUpdateContorl::fw_getUpdateProgress(const char* name, unsigned int* progress) {
  const int ret = FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(name, progress);
  FW_LOG(diagnostics::kError, MESSAGE_PROGRESS_ANSWERED, ret, name, *progress);
  return ret;
}
