// SPDX-License-Identifier: Apache-2.0
// The client's way into the library: lists the modules, reads versions and
// progress, and asks for the update of one module. There is one facade a
// process; it lives from the first getInstance() to process exit. Update
// requests and the other queries may run in several threads at once, but
// fw_getUpdateItemList refills a list of the facade: one caller at a time.
#ifndef FW_UPDATE_CONTROL_H
#define FW_UPDATE_CONTROL_H

#include <list>

#include "fw-update-export.h"
#include "fw-update-types.h"

// The letters of the class name are deliberate.
class FW_UPDATE_EXPORT FWUpdateContorl {
 public:
  // The first call scans the controls directory and binds every module in it.
  // Throws std::bad_function_call when one of them cannot be listed: its file
  // cannot be loaded, or lacks setContext, getEMPID or getActiveVersion. The
  // next call then tries again, without a scan. Never null.
  static FWUpdateContorl* getInstance();

  // A copy of the item list taken when the facade was constructed: versions in
  // it are those of that moment, also after an update. fw_getVersion is fresh.
  std::list<FWUpdateItem> fw_getItemList();

  // Updates every module with this library name and blocks until the update
  // finished, failed or ran out of time. name and data must not be null; only
  // the first 127 characters of data reach the module.
  // Returns 0 when the module was updated or did not need it, 1 when it ran out
  // of time, -1 when there is no such module or the library refused the image,
  // else the module's own result.
  int fw_update_from_control(const char* name, CallerTypes caller, const char* data);

  // The same for the known requesters. Factory automation ignores data.
  int fw_update_from_factory(const char* name, const char* data);
  int fw_update_from_debug(const char* name, const char* data);
  int fw_update_from_factory_automation(const char* name, const char* data);
  int fw_update_from_upgrade_app(const char* name, const char* data);
  int fw_update_from_lsm(const char* name, const char* data);
  int fw_update_from_upgrade_epsolution(const char* name, const char* data);

  // Active version and firmware name of one module, asked of the module now.
  // version and fwName are the caller's, 128 bytes each; a firmware name of 127
  // characters or more arrives without a terminator in fwName's 127 bytes.
  // Returns the module's result, or -1 and nothing written for an unknown name.
  int fw_getFWInformation(const char* name, char* version, char* fwName);
  int fw_getVersion(const char* name, char* version);

  // The modules that need an update for this requester, in registry order. Each
  // module's image is located, checked and compared, which may take long.
  std::list<FWUpdateItem> fw_getUpdateItemList(CallerTypes caller, char* data);

  // Progress of a module's running update, in the module's own unit (percent by
  // custom). Returns the module's result, or -1 with *progress untouched when
  // the name is unknown or the module reports no progress.
  int fw_getUpdateProgress(const char* name, unsigned int* progress);

  FWUpdateContorl(const FWUpdateContorl&) = delete;
  FWUpdateContorl& operator=(const FWUpdateContorl&) = delete;

 private:
  FWUpdateContorl();
  ~FWUpdateContorl();

  std::list<FWUpdateItem> itemList;        // all modules, captured once
  std::list<FWUpdateItem> updateItemList;  // refilled by fw_getUpdateItemList
};

#endif
