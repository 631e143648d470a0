// SPDX-License-Identifier: Apache-2.0
#include "fw-update-symbol.h"

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "app-binary-manager.h"
#include "callers.h"
#include "device-paths.h"
#include "diagnostic-log.h"
#include "empty-data.h"
#include "file-handles.h"
#include "fw-update-mount-manager.h"
#include "image-crc.h"
#include "information-file.h"
#include "library-messages.h"
#include "module-file.h"
#include "module-names.h"
#include "record-lock.h"
#include "regular-file.h"
#include "text-buffer.h"
#include "usb-package.h"

namespace {

constexpr int kLastUsbDrive = 10;

constexpr unsigned int kProcessUpdateSeconds = 1800;

// ---- Binding ----------------------------------------------------------------

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};

// Shared, because copies of a record share their library. Null, with dlerror set,
// when it cannot be opened; a null handle is never closed.
std::shared_ptr<void> openLibrary(const char* path) {
  void* const library = dlopen(path, RTLD_NOW);
  return library == nullptr ? nullptr : std::shared_ptr<void>(library, CloseLibrary());
}

// Empty when nothing failed. A copy, since the C library's text goes with the next
// look-up of the thread, and a platform may look something up while it logs.
std::string libraryError() {
  const char* const error = dlerror();
  return error == nullptr ? "" : error;
}

template <typename Function>
void storeEntry(std::function<Function>& slot, void* address) {
  slot = nullptr;
  if (address != nullptr) {
    slot = reinterpret_cast<Function*>(address);
  }
}

template <auto Slot>
void storeIn(FWUpdateSymbol& module, void* address) {
  storeEntry(module.*Slot, address);
}

// ---- File locations ---------------------------------------------------------

UPDATE_TYPE callerToUpdateType(CallerTypes caller, char* data) {
  if (caller == CALLER_DEBUG && data != nullptr && std::strcmp(data, "USB") == 0) {
    return UPDATE_TYPE_USB;
  }
  return fwcallers::imagesOf(caller);
}

// ---- Signature --------------------------------------------------------------

using VerifyFile = int (*)(int reserved, const char* filePath, const char* caller);

constexpr const char* kVerifierCaller = "UserCaller";

// Non-zero when the file may be used. A missing verifier lets every file pass, on
// purpose: only its explicit 0 rejects one.
int zaq_verify(const char* filePath) {
  static std::atomic<VerifyFile> s_kzaq_verifier{nullptr};

  std::unique_ptr<void, CloseLibrary> library;
  VerifyFile verify = s_kzaq_verifier.load();
  if (verify == nullptr) {
    // RTLD_NODELETE keeps the entry point valid after the handle is closed.
    library.reset(dlopen(fwpaths::kVerifierLibrary, RTLD_LAZY | RTLD_NODELETE));
    if (!library) {
      FW_LOG(diagnostics::kError, MESSAGE_VERIFIER_NOT_LOADED, kVerifierCaller, libraryError().c_str());
      return 1;
    }
    dlerror();
    verify = reinterpret_cast<VerifyFile>(dlsym(library.get(), "verifyFile"));
    const std::string error = libraryError();
    if (verify != nullptr) {
      ContentCheck::bind(library.get());  // before another thread can see the entry point
    }
    s_kzaq_verifier.store(verify);
    if (!error.empty()) {
      FW_LOG(diagnostics::kError, MESSAGE_VERIFIER_WITHOUT_ENTRY, kVerifierCaller, error.c_str());
      return 1;
    }
    if (verify == nullptr) {
      return 1;
    }
  }

  const int result = verify(0, filePath, kVerifierCaller);
  if (result != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_SIGNATURE_VALID, kVerifierCaller, filePath);
  } else {
    FW_LOG(diagnostics::kError, MESSAGE_SIGNATURE_INVALID, kVerifierCaller, filePath);
  }
  return result;
}

// Refused is also what is another file, or has changed, since it was opened.
bool isVerified(const OpenPackage& package, const std::string& path) {
  const bool unchanged = package.isUnchanged();
  return zaq_verify(path.c_str()) != 0 && unchanged && package.isUnchanged();
}

}  // namespace

std::mutex& recordMutex() {
  static std::mutex mutex;
  return mutex;
}

FWUpdateSymbol::FWUpdateSymbol(const std::string& name)
    : empBound(false), needUpdate(false), expectedUpdateTime(0), libName(name), symbolType(0) {}

FWUpdateSymbol::~FWUpdateSymbol() = default;

// ---- Binding ----------------------------------------------------------------

// The steps of loadSymbol, which log under its name.
struct FWUpdateSymbol::Binding {
  struct EntryPoint {
    const char* name;
    bool required;
    void (*store)(FWUpdateSymbol& module, void* address);
  };
  // In the order in which they are looked up.
  static constexpr EntryPoint kEntryPoints[] = {
      {"setContext", true, storeIn<&FWUpdateSymbol::setContextEntry>},
      {"getEMPID", true, storeIn<&FWUpdateSymbol::getEMPIDEntry>},
      {"getActiveVersion", true, storeIn<&FWUpdateSymbol::getActiveVersionEntry>},
      {"checkVersion", true, storeIn<&FWUpdateSymbol::checkVersionEntry>},
      {"doUpdate", true, storeIn<&FWUpdateSymbol::doUpdateEntry>},
      {"allUpdateDone", false, storeIn<&FWUpdateSymbol::allUpdateDoneEntry>},
      {"doUpdate_decryption", false, storeIn<&FWUpdateSymbol::doUpdateDecryptionEntry>},
      {"getExpectedTime", false, storeIn<&FWUpdateSymbol::getExpectedTimeEntry>},
      {"getUpdateProgress", false, storeIn<&FWUpdateSymbol::getUpdateProgressEntry>},
  };

  // Takes the library. Nothing may point any more into the one that the record had.
  static void replaceLibrary(FWUpdateSymbol& module, const std::shared_ptr<void>& library) {
    module.empBound = false;
    for (const EntryPoint& entry : kEntryPoints) {
      entry.store(module, nullptr);
    }
    module.handle = library;
  }

  // False when a required one is missing; those after it stay empty.
  static bool lookUpEntryPoints(FWUpdateSymbol& module) {
    for (const EntryPoint& entry : kEntryPoints) {
      entry.store(module, dlsym(module.handle.get(), entry.name));
      const std::string error = libraryError();
      if (error.empty()) {
        continue;
      }
      if (entry.required) {
        FW_LOG_AS("loadSymbol", diagnostics::kError, MESSAGE_ENTRY_POINT_MISSING, error.c_str());
        return false;
      }
      FW_LOG_AS("loadSymbol", diagnostics::kDebug, MESSAGE_ENTRY_POINT_MISSING, error.c_str());
      entry.store(module, nullptr);
    }
    return true;
  }

  // Names the firmware and the package after the module's identifier.
  static bool takeIdentifier(FWUpdateSymbol& module) {
    std::string empId;
    if (module.getEMPID(empId) != 0) {
      return false;
    }
    module.empName = empId;
    module.firmwareName = fwnames::firmwareNameOf(empId);
    if (!fwnames::namesFirmware(empId)) {
      FW_LOG_AS("loadSymbol", diagnostics::kError, MESSAGE_PACKAGE_ID_WITHOUT_EMP, empId.c_str());
      return false;
    }
    module.empImagePath = fwpaths::kPackageImages + module.empName + ".img";
    return true;
  }
};

int FWUpdateSymbol::loadSymbol(const std::string& name) {
  if (name.empty()) {
    return -1;
  }
  const std::string path = fwpaths::kControls + name + ".so";
  const std::string resolved = resolveModuleFile(path);
  if (resolved.empty()) {
    return -1;
  }
  libName = name;
  const std::shared_ptr<void> library = openLibrary(resolved.c_str());
  if (!library) {
    // "dlsym" in the report of a failed dlopen is kept on purpose.
    FW_LOG(diagnostics::kError, MESSAGE_MODULE_NOT_LOADED, path.c_str(), libraryError().c_str());
    return -1;
  }
  Binding::replaceLibrary(*this, library);
  if (!Binding::lookUpEntryPoints(*this)) {
    return -1;
  }
  setContext(CALLER_QUERY, emptyDataOf(libName));

  if (fwnames::isExtensionModule(libName)) {
    symbolType = 1;
    FW_LOG(diagnostics::kError, MESSAGE_MODULE_IS_EXTENSION, libName.c_str());
    return 0;
  }
  if (!Binding::takeIdentifier(*this)) {
    return -1;
  }
  empBound = true;
  symbolType = 0;
  return 0;
}

int FWUpdateSymbol::getEMPID(std::string& empId) {
  char text[kTextSize] = {};
  getEMPIDEntry(text);
  terminate(text);
  empId = text;
  if (empId.empty()) {
    FW_LOG(diagnostics::kError, MESSAGE_PACKAGE_ID_EMPTY, libName.c_str());
    return -1;
  }
  if (!fwnames::isPlainName(empId)) {
    FW_LOG(diagnostics::kError, MESSAGE_PACKAGE_ID_CHARACTERS, empId.c_str());
    return -1;
  }
  return 0;
}

int FWUpdateSymbol::setContext(CallerTypes caller, char* data) {
  return setContextEntry(libName.c_str(), caller, data);
}

int FWUpdateSymbol::getActiveVersion(char* out) {
  setContext(CALLER_QUERY, emptyDataOf(libName));
  const int result = getActiveVersionEntry(out);
  terminate(out);
  return result;
}

int FWUpdateSymbol::checkVersion(const char* version, int* need) {
  return checkVersionEntry(version, need);
}

int FWUpdateSymbol::doUpdate(const char* path, unsigned long value, unsigned int /*expectedTime*/) {
  return doUpdateEntry(path, value);
}

int FWUpdateSymbol::allUpdateDone() {
  return allUpdateDoneEntry ? allUpdateDoneEntry() : -1;
}

int FWUpdateSymbol::doUpdate_decryption(const unsigned char* data, int length) {
  return empBound && doUpdateDecryptionEntry ? doUpdateDecryptionEntry(data, length) : -1;
}

int FWUpdateSymbol::getExpectedTime(int* seconds) {
  return empBound && getExpectedTimeEntry ? getExpectedTimeEntry(seconds) : -1;
}

int FWUpdateSymbol::getUpdateProgress(unsigned int* progress) {
  return getUpdateProgressEntry ? getUpdateProgressEntry(progress) : -1;
}

std::string FWUpdateSymbol::getLibName() const {
  return libName;
}

std::string FWUpdateSymbol::getEMPName() const {
  return empName;
}

std::string FWUpdateSymbol::getFirmwareName() const {
  return firmwareName;
}

int FWUpdateSymbol::getSymbolType() const {
  return symbolType;
}

bool FWUpdateSymbol::getNeedUpdate() const {
  const std::lock_guard<std::mutex> lock(recordMutex());
  return needUpdate;
}

unsigned int FWUpdateSymbol::getExpectedUpdateTime() const {
  const std::lock_guard<std::mutex> lock(recordMutex());
  return static_cast<unsigned int>(expectedUpdateTime);
}

// ---- File locations ---------------------------------------------------------

namespace {

// Where the image and the "info.json" of a module lie, with a trailing "/". Empty
// when that is on a USB drive and none is mounted.
std::string folderOf(FWUpdateSymbol& module, UPDATE_TYPE type) {
  std::string drive;
  switch (type) {
    case UPDATE_TYPE_USB:
      return module.getUsbMountPath(drive) ? drive + module.getFirmwareName() + "/" : "";
    case UPDATE_TYPE_BUILTIN:
      return fwpaths::kBuiltinImages + module.getFirmwareName() + "/";
    case UPDATE_TYPE_SBOX:
      return fwpaths::kSboxImages + module.getFirmwareName() + "/";
    default:
      // The directory bears the full identifier, the image the short name; deliberate.
      return fwpaths::kPackageMounts + module.getEMPName() + "/";
  }
}

}  // namespace

std::string FWUpdateSymbol::getInformationPath(UPDATE_TYPE type) {
  const std::string folder = folderOf(*this, type);
  if (folder.empty()) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_USB_DRIVE);
    return "";
  }
  return folder + "info.json";
}

std::string FWUpdateSymbol::getBinaryPath(UPDATE_TYPE type) {
  const std::string folder = folderOf(*this, type);
  if (folder.empty()) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_USB_DRIVE);
    return "";
  }
  return folder + firmwareName + ".bin";
}

bool FWUpdateSymbol::getUsbMountPath(std::string& out) {
  std::string drive = std::string(fwpaths::kUsbDrive) + "/";
  for (int number = 1; !file_exists(drive); ++number) {
    if (number > kLastUsbDrive) {
      return false;
    }
    drive = fwpaths::kUsbDrive + std::to_string(number) + "/";
  }
  out = drive;
  return true;
}

bool FWUpdateSymbol::file_exists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

bool FWUpdateSymbol::getIMGExists() {
  return empBound && file_exists(empImagePath);
}

// ---- Information file -------------------------------------------------------

bool FWUpdateSymbol::loadInformation(const std::string& path) {
  Json::Value root;
  if (!parseInformation(path, root)) {
    FW_LOG(diagnostics::kError, MESSAGE_INFORMATION_INVALID, path.c_str());
    return false;
  }

  // Read into a copy: a worker that ran out of time may still read the record.
  // What was read before a failure is stored all the same.
  FWInformation read;
  {
    const std::lock_guard<std::mutex> lock(recordMutex());
    read = information;
  }
  bool complete = true;
  read.version = root.get("version", "0000").asString();
  try {
    read.crc = root.get("crc", 0).asUInt();
    read.expectedTime = root.get("expected_time", 300).asUInt();
  } catch (const std::exception& error) {
    // One wording for both numbers, kept on purpose.
    FW_LOG(diagnostics::kError, MESSAGE_INFORMATION_NUMBER_INVALID, error.what(), path.c_str());
    complete = false;
  }

  const std::lock_guard<std::mutex> lock(recordMutex());
  information = read;
  return complete;
}

unsigned int FWUpdateSymbol::getBinaryCRC32(const std::string& path) {
  constexpr std::size_t kChunkSize = 32768;
  const RegularFile file = openRegularFile(path);
  if (!file.descriptor.isOpen()) {
    FW_LOG(diagnostics::kError, MESSAGE_IMAGE_UNREADABLE);
    return 0;
  }

  // On a cache line, because the kernel copies to other addresses at down to a third
  // of the speed.
  alignas(64) unsigned char chunk[kChunkSize];
  std::uint32_t crc = 0;
  // A file that has grown since it was opened is left behind its old end: the bytes
  // read by then give another checksum, and it may never stop growing.
  for (off_t left = file.size; left >= 0;) {
    const ssize_t size = read(file.descriptor.get(), chunk, sizeof(chunk));
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size <= 0) {
      break;
    }
    crc = extendImageCrc(crc, chunk, static_cast<std::size_t>(size));
    left -= size;
  }
  return crc;
}

// ---- Update -----------------------------------------------------------------

namespace {

FWInformation copyOf(const FWInformation& information) {
  const std::lock_guard<std::mutex> lock(recordMutex());
  return information;
}

// What is no regular file has the checksum 0, which "info.json" may state as well; a
// module is not to wait for a FIFO or to read from a device.
bool hasChecksum(FWUpdateSymbol& module, const std::string& binary, unsigned int crc) {
  return module.getBinaryCRC32(binary) == crc && isRegularFile(binary);
}

// The kernel keeps the first 15 characters.
void nameThread(const std::string& name) {
  prctl(PR_SET_NAME, name.c_str());
}

}  // namespace

int FWUpdateSymbol::isNeedUpdate(CallerTypes caller, char* data) {
  FW_LOG(diagnostics::kError, MESSAGE_CHECK_BEGINS, libName.c_str(), firmwareName.c_str());
  const UPDATE_TYPE type = callerToUpdateType(caller, data);
  if (type == UPDATE_TYPE_EMP && !mountEMPImage()) {
    return -1;
  }
  int need = 0;
  setContext(caller, data);

  const std::string binary = getBinaryPath(type);
  if (!file_exists(binary)) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_IMAGE, binary.c_str());
    return -1;
  }
  const std::string info = getInformationPath(type);
  if (!file_exists(info)) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_INFORMATION, info.c_str());
    return -1;
  }
  if (!loadInformation(info)) {
    FW_LOG(diagnostics::kError, MESSAGE_INFORMATION_NOT_LOADED);
    return -1;
  }
  const FWInformation image = copyOf(information);
  if (!hasChecksum(*this, binary, image.crc)) {
    FW_LOG(diagnostics::kError, MESSAGE_CHECKSUM_DIFFERS, firmwareName.c_str());
    return -1;
  }
  if (checkVersion(image.version.c_str(), &need) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_VERSIONS_NOT_COMPARED, firmwareName.c_str());
    return -1;
  }

  if (need <= 0) {
    char activeVersion[kTextSize] = {};
    getActiveVersion(activeVersion);
    // The package image's path, not the firmware name, is printed on purpose.
    FW_LOG(diagnostics::kError, MESSAGE_NOT_NEEDED, empImagePath.c_str(), activeVersion);
    if (data != nullptr && std::strcmp(data, fwcallers::kFactoryAutomation) == 0) {
      need = 0;
    }
  }
  // A negative answer marks the module as needing an update; kept on purpose.
  const std::lock_guard<std::mutex> lock(recordMutex());
  needUpdate = need != 0;
  expectedUpdateTime = static_cast<int>(image.expectedTime);
  return need;
}

// The steps of updateFirmware, which log under its name.
struct FWUpdateSymbol::Update {
  FWUpdateSymbol& module;
  const CallerTypes caller;
  char* const data;
  const UPDATE_TYPE type;
  std::string binary;
  FWInformation image;

  // The information file is looked at before the image here, after it in
  // isNeedUpdate; both orders are deliberate.
  bool findImage() {
    if (type == UPDATE_TYPE_EMP && !module.mountEMPImage()) {
      return false;
    }
    const std::string info = module.getInformationPath(type);
    if (!module.file_exists(info)) {
      FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_NO_INFORMATION, info.c_str());
      return false;
    }
    if (!module.loadInformation(info)) {
      FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_INFORMATION_NOT_LOADED);
      return false;
    }
    image = copyOf(module.information);
    binary = module.getBinaryPath(type);
    if (!module.file_exists(binary)) {
      FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_NO_IMAGE, binary.c_str());
      return false;
    }
    return true;
  }

  // Whether the module answers; need is what it says of the image's version.
  bool askModule(int& need) const {
    if (module.setContext(caller, data) != 0) {
      return false;
    }
    if (module.checkVersion(image.version.c_str(), &need) != 0) {
      FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_VERSIONS_NOT_COMPARED,
                module.firmwareName.c_str());
      return false;
    }
    return true;
  }

  int endWithoutNeed() const {
    FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_NOT_NEEDED_ANY_MORE,
              module.firmwareName.c_str());
    if (type == UPDATE_TYPE_EMP) {
      module.unmountEMPImage();
    }
    return 0;
  }

  bool isImageWhole() const {
    if (hasChecksum(module, binary, image.crc)) {
      return true;
    }
    // Lower-case "crc32" here, upper-case in isNeedUpdate; kept on purpose.
    FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_CHECKSUM_DIFFERS_NOW,
              module.firmwareName.c_str());
    return false;
  }

  int writeImage() const {
    const char* const name = module.firmwareName.c_str();
    FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_WRITE_BEGINS, name);
    const int result = module.doUpdate(binary.c_str(), image.crc, image.expectedTime);
    if (result != 0) {
      // Nothing may come between the module and this line that changes errno. The
      // package stays mounted after a failure, on purpose.
      FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_WRITE_FAILED, name, result, errno);
      return result;
    }
    FW_LOG_AS("updateFirmware", diagnostics::kError, MESSAGE_WRITE_SUCCEEDED, name);
    if (type == UPDATE_TYPE_EMP) {
      std::remove(module.empImagePath.c_str());
      module.unmountEMPImage();
    }
    return 0;
  }
};

int FWUpdateSymbol::updateFirmware(CallerTypes caller, char* data) {
  static std::mutex updateMutex;

  if (!empBound) {
    return -1;
  }
  FW_LOG(diagnostics::kError, MESSAGE_LOCK_TAKEN, firmwareName.c_str());
  Update update{*this, caller, data, callerToUpdateType(caller, data), "", {}};
  if (!update.findImage()) {
    return -1;
  }

  nameThread(firmwareName);
  const std::lock_guard<std::mutex> lock(updateMutex);
  int need = -1;
  if (!update.askModule(need)) {
    return -1;
  }
  if (need <= 0) {
    return update.endWithoutNeed();
  }
  return update.isImageWhole() ? update.writeImage() : -1;
}

int FWUpdateSymbol::runProcess(CallerTypes caller, char* data) {
  // Not the mutex of updateFirmware, on purpose: a file update and a process
  // update of different modules do not exclude each other.
  static std::mutex processMutex;

  FW_LOG(diagnostics::kError, MESSAGE_PROCEDURE_BEGINS, firmwareName.c_str());
  nameThread(firmwareName);
  const std::lock_guard<std::mutex> lock(processMutex);
  if (setContext(caller, data) != 0) {
    return -1;
  }
  if (doUpdate(libName.c_str(), 0, kProcessUpdateSeconds) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_PROCEDURE_FAILED, libName.c_str(), errno);
    return -1;
  }
  return 0;
}

// ---- Extension packages -----------------------------------------------------

bool FWUpdateSymbol::downloadEMP() {
  if (!empBound) {
    return false;
  }
  if (!appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, empName)) {
    FW_LOG(diagnostics::kError, MESSAGE_DOWNLOAD_REFUSED, empName.c_str());
    return false;
  }
  FW_LOG(diagnostics::kInfo, MESSAGE_DOWNLOAD_REQUESTED, empName.c_str());
  return true;
}

bool FWUpdateSymbol::mountEMPImage() {
  if (!getIMGExists()) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_PACKAGE, empImagePath.c_str());
    return false;
  }
  const std::string directory = fwpaths::kPackageMounts + empName;
  // Removes a stale mount; with nothing mounted this fails and says so, harmlessly.
  FWMountManager::getInstance()->UMount(directory);
  if (FWMountManager::getInstance()->Mount(empImagePath, directory) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_PACKAGE_NOT_MOUNTED, empName.c_str());
    return false;
  }
  return true;
}

bool FWUpdateSymbol::unmountEMPImage() {
  const std::string directory = fwpaths::kPackageMounts + empName;
  if (FWMountManager::getInstance()->UMount(directory) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_PACKAGE_NOT_UNMOUNTED, empName.c_str());
    return false;
  }
  // A success at error priority, so that it always reaches the log; on purpose.
  FW_LOG(diagnostics::kError, MESSAGE_PACKAGE_UNMOUNTED, empImagePath.c_str());
  return true;
}

// ---- USB packages -----------------------------------------------------------

namespace {

// Why a package is not used, in the order in which it is found out.
enum class PackageFault { NoKey, NoFolder, NotOpened, NotSigned, NoIv, NoData };

enum class PackageUse { List, Apply };

// A module's package on a USB drive, from its file to its plaintext. Listing and
// applying it take the same steps; each has its own words for what fails.
class UsbPackage {
 public:
  UsbPackage(FWUpdateSymbol& module, const unsigned char* key, const char* folder)
      : module_(module),
        key_(key),
        hasFolder_(folder != nullptr),
        path_(hasFolder_ ? folder + module.getFirmwareName() + ".bin" : "") {}

  // To be called once.
  std::optional<PackageFault> decrypt(PackageUse use) {
    if (key_ == nullptr) {
      return PackageFault::NoKey;
    }
    if (!hasFolder_) {
      return PackageFault::NoFolder;
    }
    if (!file_.emplace(path_).isOpen()) {
      return PackageFault::NotOpened;
    }
    if (!isVerified(*file_, path_)) {
      return PackageFault::NotSigned;
    }
    module_.setContext(CALLER_USB_PACKAGE, emptyDataOf(module_.getLibName()));
    return readPlaintext(use);
  }

  const char* path() const { return path_.c_str(); }
  const char* version() const { return version_.data(); }
  const unsigned char* image() const { return plaintext_ + kVersionBlockSize; }
  int imageSize() const { return size_ - kVersionBlockSize; }
  bool noteApplied() const { return file_->noteApplied(); }

 private:
  // The whole size counts for listing, size - 16 for applying; only the version block
  // is used of the former. The buffer stays with cipher_buf_all and is not freed, on
  // purpose.
  std::optional<PackageFault> readPlaintext(PackageUse use) {
    const std::int64_t size = packageSize(path_);
    PackageIv iv;
    FILE* const stream = file_->read();
    if (!readPackageIv(stream, iv)) {
      return PackageFault::NoIv;
    }
    const bool applies = use == PackageUse::Apply;
    const std::int64_t count = applies ? size - static_cast<int>(iv.size()) : size;
    plaintext_ = decryptPackage(stream, key_, iv, size, count, size_);
    if (plaintext_ == nullptr || (applies && size_ < kVersionBlockSize)) {
      return PackageFault::NoData;
    }
    if (!file_->isWhatWasVerified()) {
      return PackageFault::NotSigned;
    }
    version_ = versionBlock(plaintext_, size_);
    file_->close();
    return std::nullopt;
  }

  FWUpdateSymbol& module_;
  const unsigned char* const key_;
  const bool hasFolder_;
  const std::string path_;
  std::optional<OpenPackage> file_;
  const unsigned char* plaintext_ = nullptr;
  int size_ = 0;  // of the plaintext
  VersionBlock version_{};
};

void sayWhyNotListed(PackageFault fault, const char* path) {
  switch (fault) {
    case PackageFault::NoKey:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_NO_KEY);
      break;
    case PackageFault::NoFolder:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_NO_DIRECTORY);
      break;
    case PackageFault::NotOpened:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_USB_PACKAGE_NOT_OPENED, path);
      break;
    case PackageFault::NotSigned:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_NOT_SIGNED, path);
      break;
    case PackageFault::NoIv:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_USB_PACKAGE_TOO_SHORT);
      break;
    case PackageFault::NoData:
      FW_LOG_AS("getNeedUpdateList", diagnostics::kError, MESSAGE_USB_PACKAGE_NOT_DECRYPTED);
      break;
  }
}

void sayWhyNotApplied(PackageFault fault, const char* path) {
  switch (fault) {
    case PackageFault::NoKey:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_NO_KEY);
      break;
    case PackageFault::NoFolder:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_NO_DIRECTORY);
      break;
    case PackageFault::NotOpened:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_USB_PACKAGE_NOT_OPENED_AGAIN, path);
      break;
    case PackageFault::NotSigned:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_NOT_SIGNED_ANY_MORE, path);
      break;
    case PackageFault::NoIv:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_USB_PACKAGE_TOO_SHORT);
      break;
    case PackageFault::NoData:
      FW_LOG_AS("updateUSB", diagnostics::kError, MESSAGE_USB_PACKAGE_NOT_DECRYPTED);
      break;
  }
}

}  // namespace

int FWUpdateSymbol::getNeedUpdateList(const unsigned char* ckey, const char* image_path) {
  if (!empBound) {
    return -1;
  }
  UsbPackage package(*this, ckey, image_path);
  if (const auto fault = package.decrypt(PackageUse::List)) {
    sayWhyNotListed(*fault, package.path());
    return -1;
  }
  int need = -1;
  if (checkVersion(package.version(), &need) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_VERSIONS_NOT_COMPARED, firmwareName.c_str());
    return -1;
  }
  int seconds = 0;
  if (getExpectedTime(&seconds) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_EXPECTED_TIME_UNKNOWN, firmwareName.c_str());
    return 0;
  }
  const std::lock_guard<std::mutex> lock(recordMutex());
  needUpdate = need != 0;
  expectedUpdateTime = seconds;
  return need;
}

int FWUpdateSymbol::updateUSB(const unsigned char* ckey, const char* image_path) {
  UsbPackage package(*this, ckey, image_path);
  if (const auto fault = package.decrypt(PackageUse::Apply)) {
    sayWhyNotApplied(*fault, package.path());
    return -1;
  }
  int need = -1;
  if (checkVersion(package.version(), &need) != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_VERSIONS_NOT_COMPARED, firmwareName.c_str());
    return -1;
  }
  if (need <= 0) {
    FW_LOG(diagnostics::kError, MESSAGE_NOT_NEEDED_ANY_MORE, firmwareName.c_str());
    return -1;
  }
  FW_LOG(diagnostics::kError, MESSAGE_WRITE_BEGINS, firmwareName.c_str());
  const int result = doUpdate_decryption(package.image(), package.imageSize());
  if (result != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_WRITE_FAILED, firmwareName.c_str(), result, errno);
    return result;
  }
  if (!package.noteApplied()) {
    FW_LOG(diagnostics::kError, MESSAGE_MINIMUM_VERSION_NOT_KEPT, firmwareName.c_str());
  }
  FW_LOG(diagnostics::kError, MESSAGE_WRITE_SUCCEEDED, firmwareName.c_str());
  return 0;
}
