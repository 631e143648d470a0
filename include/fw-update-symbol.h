// SPDX-License-Identifier: Apache-2.0
// One update module: a plug-in library bound to its entry points, its names and
// file locations, its information record and its update logic. A plain value:
// copies share the library handle, which is closed with the last of them.
// isNeedUpdate, updateFirmware and runProcess may run in several threads; the
// latter two each admit one module at a time in a process. Binding must be over
// before other threads use the record.
#ifndef FW_UPDATE_SYMBOL_H
#define FW_UPDATE_SYMBOL_H

#include <functional>
#include <memory>
#include <string>

#include "fw-update-export.h"
#include "fw-update-types.h"

class FW_UPDATE_EXPORT FWUpdateSymbol {
 public:
  // libName is the library's stem, without directory and ".so".
  explicit FWUpdateSymbol(const std::string& libName);
  FWUpdateSymbol(const FWUpdateSymbol& other) = default;
  FWUpdateSymbol& operator=(const FWUpdateSymbol& other) = default;
  ~FWUpdateSymbol();

  // Opens "/prd/usr/fwupdate/controls/" + libName + ".so" and binds it. 0 on
  // success, -1 on failure; what was bound before the failure stays bound.
  int loadSymbol(const std::string& libName);

  // The module's package identifier. 0 when it is valid (ASCII letters and
  // digits), -1 when it is empty or not; empId receives the text either way.
  int getEMPID(std::string& empId);

  // The module's entry points, each with the module's own result. The first four
  // throw std::bad_function_call when the entry point is not bound, the others
  // return -1. Text buffers are 128 bytes.
  int setContext(CallerTypes caller, char* data);
  int getActiveVersion(char* out);
  int checkVersion(const char* version, int* need);
  // expectedTime is accepted and not passed on.
  int doUpdate(const char* path, unsigned long value, unsigned int expectedTime);
  int allUpdateDone();
  int doUpdate_decryption(const unsigned char* data, int length);
  int getExpectedTime(int* seconds);
  int getUpdateProgress(unsigned int* progress);

  std::string getLibName() const;
  std::string getEMPName() const;
  std::string getFirmwareName() const;
  int getSymbolType() const;  // 0 updatable, 1 an EXT- module
  bool getNeedUpdate() const;
  unsigned int getExpectedUpdateTime() const;  // seconds

  // Where the image and its "info.json" lie. For UPDATE_TYPE_USB "" when no USB
  // drive is mounted.
  std::string getInformationPath(UPDATE_TYPE type);
  std::string getBinaryPath(UPDATE_TYPE type);
  // The mounted USB drive's directory, with a trailing "/". out is untouched
  // when there is none.
  bool getUsbMountPath(std::string& out);
  bool file_exists(const std::string& path);
  bool getIMGExists();

  // Reads an "info.json" into the record. Values read before a failure stay.
  bool loadInformation(const std::string& path);
  // CRC-32 (polynomial 0x01B23CA3) of a whole file; 0 when it cannot be opened.
  unsigned int getBinaryCRC32(const std::string& path);

  // Checks the image and asks the module. Greater than 0: needs an update; 0:
  // does not; negative: failure, or the module's own answer.
  int isNeedUpdate(CallerTypes caller, char* data);
  // 0 updated or not needed, -1 refused, else the module's own result.
  int updateFirmware(CallerTypes caller, char* data);
  // Lets the module run its own procedure without an image. 0 or -1.
  int runProcess(CallerTypes caller, char* data);

  // The module's extension package: request its download, mount it on its
  // directory, unmount it. The download is not waited for.
  bool downloadEMP();
  bool mountEMPImage();
  bool unmountEMPImage();

  // Checks, or applies, the encrypted package image_path + firmwareName + ".bin"
  // with the 32-byte key ckey. The first returns the module's need (1: update),
  // 0 when the module gives no expected time, -1 on an earlier failure; the
  // second 0, the module's own result, or -1.
  int getNeedUpdateList(const unsigned char* ckey, const char* image_path);
  int updateUSB(const unsigned char* ckey, const char* image_path);

 private:
  using StatusCallback = std::function<void(const std::string&, int)>;
  struct Binding;  // the steps of loadSymbol
  struct Update;   // the steps of updateFirmware

  bool empBound;
  bool needUpdate;
  int expectedUpdateTime;  // seconds
  std::shared_ptr<void> handle;
  std::string libName;
  std::string empName;
  std::string firmwareName;
  std::string empImagePath;
  StatusCallback statusCallbacks[3];  // never set or invoked by the library
  FWInformation information;
  std::function<int(const char*, CallerTypes, char*)> setContextEntry;
  std::function<int(char*)> getEMPIDEntry;
  std::function<int(char*)> getActiveVersionEntry;
  std::function<int(const char*, int*)> checkVersionEntry;
  std::function<int(const char*, unsigned long)> doUpdateEntry;
  std::function<int()> allUpdateDoneEntry;
  std::function<int(const unsigned char*, int)> doUpdateDecryptionEntry;
  std::function<int(int*)> getExpectedTimeEntry;
  std::function<int(unsigned int*)> getUpdateProgressEntry;
  int symbolType;
};

#endif
