// SPDX-License-Identifier: Apache-2.0
#include "fw-update-symbol-manager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include "device-paths.h"
#include "device-power.h"
#include "diagnostic-log.h"
#include "empty-data.h"
#include "file-handles.h"
#include "fw-update-common.h"
#include "library-messages.h"
#include "lwipc.h"
#include "module-file.h"
#include "module-names.h"
#include "record-lock.h"
#include "system-info.h"
#include "text-buffer.h"

namespace {

constexpr const char* kResumeEvent = "/tmp/.ignore_resume";

constexpr int kPowerState = 2;
constexpr int kTimedOut = 1;

// ---- Workers that outlive their request ---------------------------------------

std::atomic<int> runningWorkers{0};

// Counts a worker from before its thread starts until it touches no record more.
class WorkerToken {
 public:
  WorkerToken() { ++runningWorkers; }
  ~WorkerToken() { --runningWorkers; }
  WorkerToken(const WorkerToken&) = delete;
  WorkerToken& operator=(const WorkerToken&) = delete;
};

// Records that a running worker may still use, set aside instead of destroyed.
// Never destroyed itself, since a worker may run until the process is gone.
std::list<std::vector<FWUpdateSymbol>>& parkedRecords() {
  static auto& parked = *new std::list<std::vector<FWUpdateSymbol>>();
  return parked;
}

void dropRecords(std::vector<FWUpdateSymbol>& records) {
  if (runningWorkers != 0) {
    parkedRecords().push_back(std::move(records));
  } else {
    parkedRecords().clear();
  }
  records.clear();
}

// Before a scan appends to the records, and so moves them in memory.
void protectFromGrowth(std::vector<FWUpdateSymbol>& records) {
  if (runningWorkers == 0 || records.empty()) {
    return;
  }
  std::vector<FWUpdateSymbol> copies;
  {
    const std::lock_guard<std::mutex> lock(recordMutex());
    copies = records;
  }
  parkedRecords().push_back(std::move(records));
  records = std::move(copies);
}

// What a caller and its worker share; whoever is last releases it.
struct UpdateRun {
  UpdateRun(CallerTypes who, const char* text) : caller(who) {
    if (text != nullptr) {
      data = text;
    }
  }

  char* dataText() { return data ? data->data() : nullptr; }

  const WorkerToken token;
  const CallerTypes caller;
  std::optional<std::string> data;
  std::mutex mutex;
  std::condition_variable finished;
  std::atomic<int> result{0};
};

// The update lock, held; given back once, at the latest at the end of the scope.
class HeldSemaphore {
 public:
  explicit HeldSemaphore(sem_t* opened) : semaphore_(opened) {
    while (sem_wait(semaphore_) != 0 && errno == EINTR) {
    }
  }
  ~HeldSemaphore() { post(); }
  HeldSemaphore(const HeldSemaphore&) = delete;
  HeldSemaphore& operator=(const HeldSemaphore&) = delete;

  void post() {
    if (semaphore_ != nullptr) {
      sem_post(semaphore_);
      semaphore_ = nullptr;
    }
  }

 private:
  sem_t* semaphore_;
};

// One wait for a steady-clock deadline, carried out against the system clock: when
// that clock runs ahead, the wait ends early and does not count as timed out.
std::cv_status waitOnce(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                        std::chrono::steady_clock::time_point deadline) {
  const auto steadyNow = std::chrono::steady_clock::now();
  const auto systemNow = std::chrono::system_clock::now();
  if (condition.wait_until(lock, systemNow + (deadline - steadyNow)) == std::cv_status::no_timeout) {
    return std::cv_status::no_timeout;
  }
  return std::chrono::steady_clock::now() < deadline ? std::cv_status::no_timeout : std::cv_status::timeout;
}

// ---- Pending list -------------------------------------------------------------

bool check_race_condition(const char* path) {
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    if (errno == ENOENT) {
      return true;
    }
    FW_LOG(diagnostics::kError, MESSAGE_PENDING_LIST_NOT_SEEN);
    return false;
  }
  if (S_ISLNK(status.st_mode)) {
    FW_LOG(diagnostics::kError, MESSAGE_PENDING_LIST_IS_LINK);
    return false;
  }
  return true;
}

// Null when it cannot be opened. Refuses a link that came since the check, and does
// not wait for the reader of a FIFO.
Stream openPendingList() {
  FileDescriptor file(
      open(fwpaths::kPendingList, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!file.isOpen()) {
    return nullptr;
  }
  Stream stream(fdopen(file.get(), "w"));
  if (stream) {
    file.release();
  }
  return stream;
}

// While this lives, a write to a FIFO whose reader has left fails; it does not end
// the process.
class WithoutPipeSignal {
 public:
  WithoutPipeSignal() {
    sigemptyset(&pipeSignal_);
    sigaddset(&pipeSignal_, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSignal_, &previous_);
  }
  ~WithoutPipeSignal() {
    const timespec noTime{};
    if (!wasPending_) {
      sigtimedwait(&pipeSignal_, nullptr, &noTime);
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  WithoutPipeSignal(const WithoutPipeSignal&) = delete;
  WithoutPipeSignal& operator=(const WithoutPipeSignal&) = delete;

 private:
  sigset_t pipeSignal_{};
  sigset_t previous_{};
  bool wasPending_;
};

// The list while it is written. What cannot be opened or written is lost silently, on
// purpose.
class PendingListFile {
 public:
  PendingListFile() : stream_(openPendingList()) {}
  ~PendingListFile() {
    const WithoutPipeSignal guard;  // closing writes what is buffered
    stream_.reset();
  }
  PendingListFile(const PendingListFile&) = delete;
  PendingListFile& operator=(const PendingListFile&) = delete;

  void add(const std::string& libName, const std::string& empName) {
    if (stream_) {
      const WithoutPipeSignal guard;
      std::fprintf(stream_.get(), "%s %s\n", libName.c_str(), empName.c_str());
    }
  }

 private:
  Stream stream_;
};

}  // namespace

FWUpdateSymbolManager* FWUpdateSymbolManager::getInstance() {
  static FWUpdateSymbolManager p_instance;
  return &p_instance;
}

FWUpdateSymbolManager::FWUpdateSymbolManager() : isReady(false) {}

FWUpdateSymbolManager::~FWUpdateSymbolManager() {
  onDestroy();
}

// ---- Registry -----------------------------------------------------------------

namespace {

std::string_view fileName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

// Appends the names of the modules in the controls directory. False when it cannot be
// read, perhaps only from some entry on.
bool scanControlsDirectory(bool skipExtModules, std::vector<std::string>& names) {
  try {
    const boost::filesystem::directory_iterator entries(fwpaths::kControls);
    for (const boost::filesystem::directory_entry& entry : entries) {
      // Not stem() and extension(), which copy the path and take it apart anew.
      const std::string_view file = fileName(entry.path().native());
      const std::size_t dot = std::min(file.rfind('.'), file.size());
      const std::string stem(file.substr(0, dot));
      if (skipExtModules && fwnames::isExtensionModule(stem)) {
        FW_LOG_AS("onCreate", diagnostics::kError, MESSAGE_EXTENSION_SKIPPED, stem.c_str());
        continue;
      }
      if (file.substr(dot) == ".so") {
        names.push_back(stem);
      }
    }
  } catch (const boost::filesystem::filesystem_error& error) {
    FW_LOG_AS("onCreate", diagnostics::kError, MESSAGE_CONTROLS_UNREADABLE, error.what());
    return false;
  }
  return true;
}

}  // namespace

bool FWUpdateSymbolManager::onCreate(bool skipExtModules) {
  std::vector<std::string> names;
  const bool scanned = scanControlsDirectory(skipExtModules, names);
  // What was found before a failure stays in the list.
  protectFromGrowth(symbolList);
  symbolList.reserve(symbolList.size() + names.size());
  for (const std::string& name : names) {
    symbolList.emplace_back(name);
  }
  if (!scanned) {
    return false;
  }

  // Bound only now that no record moves any more.
  const ControlsDirectoryScan scan;
  for (FWUpdateSymbol& module : symbolList) {
    module.loadSymbol(module.getLibName());
  }
  if (getSWVersionString() != 0) {
    FW_LOG(diagnostics::kError, MESSAGE_NO_SOFTWARE_MODEL);
  }
  return true;
}

bool FWUpdateSymbolManager::getIsReady(bool skipExtModules) {
  if (!isReady) {
    isReady = onCreate(skipExtModules);
  }
  return isReady;
}

bool FWUpdateSymbolManager::onDestroy() {
  dropRecords(symbolList);
  return true;
}

int FWUpdateSymbolManager::getSWVersionString() {
  struct FreeText {
    void operator()(char* text) const { std::free(text); }
  };
  char* value = nullptr;
  if (system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, &value) != 0 || value == nullptr) {
    FW_LOG(diagnostics::kError, MESSAGE_SOFTWARE_VERSION_UNKNOWN);
    return -1;
  }
  const std::unique_ptr<char, FreeText> owner(value);
  const std::string version = value;
  const std::size_t dash = version.rfind('-');
  if (dash == std::string::npos) {
    FW_LOG(diagnostics::kError, MESSAGE_SOFTWARE_VERSION_WITHOUT_DASH, value);
    return -1;
  }
  swModel = version.substr(0, dash);
  FW_LOG(diagnostics::kInfo, MESSAGE_SOFTWARE_MODEL, swModel.c_str());
  return 0;
}

namespace {

FWUpdateItem itemOf(FWUpdateSymbol& module) {
  char name[kTextSize] = {};
  char version[kTextSize] = {};
  char fwName[kTextSize] = {};
  module.getActiveVersion(version);
  copyFixed(name, module.getLibName());
  copyFixed(fwName, module.getFirmwareName());
  return FWUpdateItem(name, version, fwName);
}

// The first module with this library name, or the end.
std::vector<FWUpdateSymbol>::iterator findModule(std::vector<FWUpdateSymbol>& modules,
                                                 const std::string& name) {
  return std::find_if(modules.begin(), modules.end(),
                      [&name](const FWUpdateSymbol& module) { return module.getLibName() == name; });
}

}  // namespace

int FWUpdateSymbolManager::getFwItems(std::list<FWUpdateItem>& items) {
  for (FWUpdateSymbol& module : symbolList) {
    items.push_back(itemOf(module));
  }
  return 0;
}

int FWUpdateSymbolManager::getUpdateFwItems(std::list<FWUpdateItem>& items, CallerTypes caller, char* data) {
  for (FWUpdateSymbol& module : symbolList) {
    if (module.isNeedUpdate(caller, data) == 1) {
      items.push_back(itemOf(module));
    }
  }
  return 0;
}

int FWUpdateSymbolManager::getFirmwareVersion(const std::string& name, char* version, char* fwName) {
  const auto module = findModule(symbolList, name);
  if (module == symbolList.end()) {
    return -1;
  }
  const int ret = module->getActiveVersion(version);
  copyFixed(fwName, module->getFirmwareName());
  return ret;
}

int FWUpdateSymbolManager::getFirmwareUpdateProgress(const std::string& name, unsigned int* progress) {
  const auto module = findModule(symbolList, name);
  return module == symbolList.end() ? -1 : module->getUpdateProgress(progress);
}

// ---- Guarded update -----------------------------------------------------------

int FWUpdateSymbolManager::doUpdateFirmware(const std::string& name, CallerTypes caller, char* data) {
  int result = -1;
  for (FWUpdateSymbol& module : symbolList) {
    if (module.getLibName() != name) {
      continue;
    }
    if (module.getSymbolType() == 1) {
      result = module.runProcess(caller, data);
      continue;
    }
    result = module.isNeedUpdate(caller, data);
    if (result != 1) {
      continue;
    }
    try {
      result = update_timeout_wrapper(module, module.getExpectedUpdateTime(), caller, data);
    } catch (const std::system_error&) {
      throw;  // a runtime_error too, but no time-out
    } catch (const std::runtime_error& error) {
      FW_LOG(diagnostics::kError, MESSAGE_EXCEPTION, error.what());
      result = kTimedOut;
    }
  }
  return result;
}

int FWUpdateSymbolManager::update_timeout_wrapper(FWUpdateSymbol& module, unsigned int timeout,
                                                  CallerTypes caller, char* data) {
  // The value is in seconds; the label "ms" is kept on purpose.
  FW_LOG(diagnostics::kError, MESSAGE_LOCK_WANTED, module.getFirmwareName().c_str(), timeout);
  // Not closed after use, on purpose: a process that has the semaphore mapped may hold the
  // lock, and by that the lock of a dead process is told from that of a live one.
  sem_t* const opened = FWUpdateCommon::getInstance()->create_semaphore();
  if (opened == nullptr) {
    return -1;
  }
  HeldSemaphore semaphore(opened);

  const auto run = std::make_shared<UpdateRun>(caller, data);
  std::thread([this, &module, run] {
    int result = -1;
    try {
      result = update_module(module, run->caller, run->dataText());
    } catch (const std::exception& error) {
      FW_LOG_AS("update_timeout_wrapper", diagnostics::kError, MESSAGE_EXCEPTION, error.what());
    } catch (...) {
      if (std::current_exception() == nullptr) {
        throw;  // no exception: the module ended its thread; the caller's time runs out
      }
      FW_LOG_AS("update_timeout_wrapper", diagnostics::kError, MESSAGE_EXCEPTION, "unknown exception");
    }
    // Without the mutex, on purpose: a notification that comes before the caller
    // waits is lost, and the caller then takes the time-out.
    run->result = result;
    run->finished.notify_one();
  }).detach();

  std::unique_lock<std::mutex> lock(run->mutex);
  // 32-bit: 4294967294 and 4294967295 give 0 and 1 second.
  const std::chrono::seconds limit(timeout + fwmessages::kWaitMarginSeconds);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  // One wait without a predicate, on purpose: any wake-up counts as the end.
  if (waitOnce(run->finished, lock, deadline) == std::cv_status::no_timeout) {
    semaphore.post();
    return run->result;
  }
  semaphore.post();
  const std::string message = module.getFirmwareName() + fwmessages::kTimedOutSuffix;
  FW_LOG(diagnostics::kError, MESSAGE_TIMED_OUT, message.c_str());
  throw std::runtime_error(message);
}

int FWUpdateSymbolManager::update_module(FWUpdateSymbol& module, CallerTypes caller, char* data) {
  return module.updateFirmware(caller, data);
}

// ---- Update-all run -----------------------------------------------------------

int FWUpdateSymbolManager::doUpdateFirmwareAll(CallerTypes /*caller*/) {
  FW_LOG(diagnostics::kError, MESSAGE_RUN_BEGINS);
  LwipcEventDone(kResumeEvent);

  unsigned int count = 0;
  unsigned int totalMs = 0;
  for (const FWUpdateSymbol& module : symbolList) {
    if (module.getNeedUpdate()) {
      totalMs += module.getExpectedUpdateTime() * 1000U;
      ++count;
    }
    FW_LOG(diagnostics::kError, MESSAGE_EXPECTED_TIME_COUNTED, module.getLibName().c_str());
  }
  if (count == 0) {
    FW_LOG(diagnostics::kError, MESSAGE_NOTHING_TO_UPDATE);
    return 0;
  }

  FW_LOG(diagnostics::kError, MESSAGE_RUN_TIME, static_cast<int>(totalMs));
  device_power_lock_state(kPowerState, static_cast<int>(count * fwmessages::kPowerMarginMs + totalMs));
  FW_LOG(diagnostics::kError, MESSAGE_POWER_HELD);

  for (FWUpdateSymbol& module : symbolList) {
    if (!module.getNeedUpdate()) {
      continue;
    }
    try {
      update_timeout_wrapper(module, module.getExpectedUpdateTime(), CALLER_QUERY,
                             emptyDataOf(module.getLibName()));
    } catch (const std::runtime_error& error) {
      FW_LOG(diagnostics::kError, MESSAGE_EXCEPTION, error.what());
    }
  }
  for (FWUpdateSymbol& module : symbolList) {
    module.allUpdateDone();
  }

  FW_LOG(diagnostics::kError, MESSAGE_POWER_RELEASE);
  device_power_unlock_state(kPowerState);
  FW_LOG(diagnostics::kError, MESSAGE_POWER_RELEASED);
  std::remove(fwpaths::kPendingList);
  return 0;
}

int FWUpdateSymbolManager::allDoUpdateDone() {
  FW_LOG(diagnostics::kError, MESSAGE_ALL_DONE_BEGINS);
  for (FWUpdateSymbol& module : symbolList) {
    module.allUpdateDone();
  }
  FW_LOG(diagnostics::kError, MESSAGE_ALL_DONE_ENDS);
  return 0;
}

int FWUpdateSymbolManager::downloadEMPAll() {
  for (FWUpdateSymbol& module : symbolList) {
    module.downloadEMP();
  }
  return 0;
}

// ---- Pending list -------------------------------------------------------------

int FWUpdateSymbolManager::writeFirmwareUpdateList(bool& running) {
  if (!check_race_condition(fwpaths::kPendingList)) {
    FW_LOG(diagnostics::kError, MESSAGE_PENDING_LIST_REFUSED);
    return -1;
  }
  PendingListFile list;
  int count = 0;
  for (FWUpdateSymbol& module : symbolList) {
    // Another thread may clear the caller's flag at any time.
    if (!__atomic_load_n(&running, __ATOMIC_RELAXED)) {
      FW_LOG(diagnostics::kError, MESSAGE_PENDING_LIST_STOPPED);
      return -1;
    }
    if (module.isNeedUpdate(CALLER_QUERY, emptyDataOf(module.getLibName())) != 1) {
      continue;
    }
    list.add(module.getLibName(), module.getEMPName());
    FW_LOG(diagnostics::kError, MESSAGE_PENDING, module.getLibName().c_str(), module.getEMPName().c_str());
    ++count;
  }
  return count;
}

// ---- USB packages -------------------------------------------------------------

int FWUpdateSymbolManager::getFirmwareUpdateTime(const unsigned char* ckey, const char* image_path,
                                                 int& time) {
  int result = -1;
  unsigned int total = 0;
  for (FWUpdateSymbol& module : symbolList) {
    if (module.getNeedUpdateList(ckey, image_path) != 1) {
      continue;
    }
    FW_LOG(diagnostics::kError, MESSAGE_USB_PACKAGE_NEEDED, module.getFirmwareName().c_str(),
           module.getExpectedUpdateTime());
    total += module.getExpectedUpdateTime();
    result = 0;
  }
  time = static_cast<int>(total);
  return result;
}

int FWUpdateSymbolManager::doUpdateUSB(const unsigned char* ckey, const char* image_path) {
  int result = -1;
  for (FWUpdateSymbol& module : symbolList) {
    if (!module.getNeedUpdate()) {
      continue;
    }
    result = module.updateUSB(ckey, image_path);
    if (result == -1) {
      FW_LOG(diagnostics::kError, MESSAGE_USB_PACKAGE_NOT_APPLIED, module.getFirmwareName().c_str());
    }
  }
  return result;
}
