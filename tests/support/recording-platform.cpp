// SPDX-License-Identifier: Apache-2.0
#include "recording-platform.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "app-binary-manager.h"
#include "device-power.h"
#include "dlog.h"
#include "lwipc.h"
#include "privileged-service.h"
#include "system-info.h"
#include "trace-storage.h"

namespace recording {
namespace {

struct State {
  std::mutex mutex;
  Answers answers;
  std::vector<std::string> calls;
  std::vector<LogLine> lines;
  std::vector<std::string> everything;
  std::vector<TraceRecord> records;
  std::vector<Location> locations;
  std::function<void(const LogLine&)> listener;
  std::uint32_t lastLocationId = 0;
};

State& state() {
  static auto& instance = *new State;
  return instance;
}

std::string render(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

constexpr char kPrefix[] = "%s: %s(%d) > ";

}  // namespace

void reset() {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.answers = Answers();
  s.calls.clear();
  s.lines.clear();
  s.everything.clear();
  s.records.clear();
  s.listener = nullptr;
  TraceStorage::enabled = 1;
}

Answers& answers() {
  return state().answers;
}

void noteCall(const std::string& call) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.push_back(call);
  s.everything.push_back(call);
}

std::vector<std::string> calls() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().calls;
}

std::vector<LogLine> logLines() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().lines;
}

std::vector<std::string> messages() {
  std::vector<std::string> out;
  for (const LogLine& line : logLines()) {
    out.push_back(std::to_string(line.priority) + " " + line.file + " " + line.function + " " + line.text);
  }
  return out;
}

std::vector<std::string> texts() {
  std::vector<std::string> out;
  for (const LogLine& line : logLines()) {
    out.push_back(line.text);
  }
  return out;
}

std::vector<std::string> everything() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().everything;
}

std::vector<TraceRecord> traceRecords() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().records;
}

std::vector<Location> traceLocations() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().locations;
}

std::vector<std::string> traceFormats() {
  std::vector<std::string> out;
  const std::vector<Location> locations = traceLocations();
  for (const TraceRecord& record : traceRecords()) {
    for (const Location& location : locations) {
      if (location.id == record.locationId) {
        out.push_back(location.format);
      }
    }
  }
  return out;
}

void onMessage(std::function<void(const LogLine&)> listener) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().listener = std::move(listener);
}

}  // namespace recording

// ---- The platform's calls -------------------------------------------------------

int __dlog_print(int logId, int priority, const char* tag, const char* format, ...) {
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  std::string full = recording::render(format, arguments);
  va_end(arguments);

  recording::LogLine line{logId, priority, tag, format, "", "", 0, full};
  if (std::strncmp(format, recording::kPrefix, sizeof(recording::kPrefix) - 1) == 0) {
    va_start(arguments, format);
    line.file = va_arg(arguments, const char*);
    line.function = va_arg(arguments, const char*);
    line.line = va_arg(arguments, int);
    va_end(arguments);
    const std::string prefix = line.file + ": " + line.function + "(" + std::to_string(line.line) + ") > ";
    line.text = full.substr(prefix.size());
  }

  recording::State& s = recording::state();
  std::function<void(const recording::LogLine&)> listener;
  {
    const std::lock_guard<std::mutex> lock(s.mutex);
    s.lines.push_back(line);
    s.everything.push_back("log: " + line.text);
    listener = s.listener;
  }
  if (listener) {
    listener(line);
  }
  errno = error;
  return static_cast<int>(full.size());
}

int system_info_get_value_string(int key, char** value) {
  recording::noteCall("system_info_get_value_string(" + std::to_string(key) + ")");
  const recording::Answers& answers = recording::answers();
  if (answers.softwareVersionStatus != 0) {
    static char nobodysText[] = "not-read";
    *value = nobodysText;  // nothing to use, nor to release
    return answers.softwareVersionStatus;
  }
  *value = answers.softwareVersion ? strdup(answers.softwareVersion->c_str()) : nullptr;
  return 0;
}

int device_power_lock_state(int state, int timeout_ms) {
  recording::noteCall("device_power_lock_state(" + std::to_string(state) + ", " + std::to_string(timeout_ms) +
                      ")");
  return recording::answers().powerLockStatus;
}

int device_power_unlock_state(int state) {
  recording::noteCall("device_power_unlock_state(" + std::to_string(state) + ")");
  return recording::answers().powerUnlockStatus;
}

int LwipcEventDone(const char* event) {
  recording::noteCall(std::string("LwipcEventDone(") + event + ")");
  return recording::answers().eventStatus;
}

int PS_Mount(const char* arguments, int capacity, int reserved, int* result) {
  recording::noteCall(std::string("PS_Mount(") + arguments + "|" + std::to_string(capacity) + "|" +
                      std::to_string(reserved) + "|" + std::to_string(*result) + ")");
  const auto& answer = recording::answers().mount;
  return answer ? answer(arguments, *result) : 0;
}

int PS_Mknod(const char* arguments, int capacity, int reserved, int* result) {
  recording::noteCall(std::string("PS_Mknod(") + arguments + "|" + std::to_string(capacity) + "|" +
                      std::to_string(reserved) + "|" + std::to_string(*result) + ")");
  const auto& answer = recording::answers().makeNode;
  return answer ? answer(arguments, *result) : 0;
}

int PS_Umount(const char* directory, int length, int reserved, int* result) {
  const std::string name(directory, static_cast<std::size_t>(length));
  recording::noteCall("PS_Umount(" + name + "|" + std::to_string(length) + "|" + std::to_string(reserved) +
                      "|" + std::to_string(*result) + ")");
  const auto& answer = recording::answers().unmount;
  return answer ? answer(name, *result) : 0;
}

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (*callback)(const std::string&, int, void*), void* userData,
                           const std::string& appId) {
  recording::noteCall(std::string("ABM_DownloadAppBinary(") + (callback == nullptr ? "null" : "callback") +
                      ", " + (userData == nullptr ? "null" : "data") + ", " + appId + ")");
  return recording::answers().downloadAccepted;
}

}  // namespace appbinaryManager

namespace TraceStorage {

std::uint8_t enabled = 1;

class Thread {
 public:
  std::unique_ptr<unsigned char[]> buffer;
  recording::TraceRecord record;
  std::size_t size = 0;
};

void Storage::SaveLocation(const CallLocation& location) {
  recording::Location saved{location.sourcePath,   location.line,   location.id,
                            location.functionName, location.format, {}};
  for (const ArgumentDescription& argument : location.arguments) {
    saved.arguments.push_back({argument.typeName, argument.flag, argument.size});
  }
  const std::lock_guard<std::mutex> lock(recording::state().mutex);
  recording::state().locations.push_back(saved);
}

Thread* Storage::ThreadHandle() {
  static thread_local Thread thread;
  return &thread;
}

// A buffer of exactly this size, so that a memory checker sees one byte too many.
unsigned char* Storage::PrepareCallBuffer(Thread* thread, unsigned int size, unsigned char kind,
                                          std::uint32_t locationId) {
  if (recording::answers().dropTraceRecords) {
    return nullptr;
  }
  thread->buffer = std::make_unique<unsigned char[]>(size);
  std::memset(thread->buffer.get(), 0xEE, size);
  thread->size = size;
  thread->record = {kind, locationId, ""};
  return thread->buffer.get();
}

void Storage::Commit(Thread* thread) {
  thread->record.payload.assign(reinterpret_cast<const char*>(thread->buffer.get()), thread->size);
  const std::lock_guard<std::mutex> lock(recording::state().mutex);
  recording::state().records.push_back(thread->record);
}

Manager& Manager::Instance() {
  static Manager manager;
  return manager;
}

std::uint32_t Manager::NewLocationId() {
  const std::lock_guard<std::mutex> lock(recording::state().mutex);
  return ++recording::state().lastLocationId;
}

Storage& Manager::GetStorage() {
  static Storage storage;
  return storage;
}

}  // namespace TraceStorage
