// SPDX-License-Identifier: Apache-2.0
// The process-wide registry of modules, and the service's way into the library.
// It owns one FWUpdateSymbol a module, in the order in which the controls
// directory yields them. It holds no lock: onCreate and onDestroy must not run
// while other threads use the registry. Updates are kept apart, across threads
// and processes, by the update lock of fw-update-common.h.
#ifndef FW_UPDATE_SYMBOL_MANAGER_H
#define FW_UPDATE_SYMBOL_MANAGER_H

#include <list>
#include <string>
#include <vector>

#include "fw-update-export.h"
#include "fw-update-symbol.h"
#include "fw-update-types.h"

class FW_UPDATE_EXPORT FWUpdateSymbolManager {
 public:
  // Constructs an empty registry on first use; does not scan. Never null.
  static FWUpdateSymbolManager* getInstance();

  // Scans the controls directory and binds every module. Each call appends what
  // it finds. With skipExtModules, files whose stem contains "EXT-" in any case
  // are left out. False when the directory cannot be read; a module that cannot
  // be bound stays in the list and does not make it fail.
  bool onCreate(bool skipExtModules);

  // Runs onCreate until it succeeded once; true from then on.
  bool getIsReady(bool skipExtModules);

  // Removes all modules and closes their libraries; readiness is kept, so
  // getIsReady does not scan again. Modules whose timed-out update still runs
  // are set aside instead of being closed under it. Always true.
  bool onDestroy();

  // Reads the device's software version and keeps the text before its last "-".
  // 0, or -1 when it is unreadable or holds no "-".
  int getSWVersionString();

  // Appends one item a module. Throws std::bad_function_call at a module whose
  // file could not be loaded or lacks setContext, getEMPID or getActiveVersion,
  // with the items before it appended. Always 0.
  int getFwItems(std::list<FWUpdateItem>& items);

  // The same for the modules whose isNeedUpdate(caller, data) is exactly 1.
  int getUpdateFwItems(std::list<FWUpdateItem>& items, CallerTypes caller, char* data);

  // Of the first module with this library name; -1 when there is none. version
  // and fwName are the caller's, 128 bytes each; fwName gets a fixed copy of 127
  // bytes, without a terminator when the name is that long.
  int getFirmwareVersion(const std::string& name, char* version, char* fwName);
  int getFirmwareUpdateProgress(const std::string& name, unsigned int* progress);

  // Updates every module with this library name. data may be null or a text of
  // any length. Returns the last such module's result: 0 updated or not needed, 1 out
  // of time, -1 refused or no such module, else isNeedUpdate's or the module's own.
  int doUpdateFirmware(const std::string& name, CallerTypes caller, char* data);

  // Updates every module marked as needing it, holding the device's power for
  // the sum of the expected times plus 5 s for each. caller is not used: every
  // module sees CALLER_QUERY and empty data. Always 0.
  int doUpdateFirmwareAll(CallerTypes caller);

  // Calls every module's allUpdateDone. Always 0.
  int allDoUpdateDone();

  // Asks for the download of every module's extension package. Always 0.
  int downloadEMPAll();

  // Writes "libName empName\n" to "/tmp/fwupdate-off-list.txt" for every module
  // that needs an update. Returns the number of lines, or -1 when a link stands
  // at that path or running was found false before a module.
  int writeFirmwareUpdateList(bool& running);

  // Checks each module's package image_path + firmwareName + ".bin" with the
  // 32-byte key ckey and marks the modules that need it. image_path ends with a
  // "/". time receives the sum of their expected times in seconds. 0 when at
  // least one module needs an update, else -1.
  int getFirmwareUpdateTime(const unsigned char* ckey, const char* image_path, int& time);

  // Applies the packages of the marked modules. Returns the last one's result,
  // or -1 when none is marked.
  int doUpdateUSB(const unsigned char* ckey, const char* image_path);

  FWUpdateSymbolManager(const FWUpdateSymbolManager&) = delete;
  FWUpdateSymbolManager& operator=(const FWUpdateSymbolManager&) = delete;

 private:
  FWUpdateSymbolManager();
  ~FWUpdateSymbolManager();

  // Runs update_module on a worker thread under the update lock and waits at
  // most timeout + 2 seconds. Returns the module's result, or -1 when the lock
  // cannot be had. Throws std::runtime_error when the time is over; the worker
  // then runs on.
  int update_timeout_wrapper(FWUpdateSymbol& module, unsigned int timeout, CallerTypes caller, char* data);
  int update_module(FWUpdateSymbol& module, CallerTypes caller, char* data);

  bool isReady;
  std::vector<FWUpdateSymbol> symbolList;
  std::string swModel;
};

#endif
