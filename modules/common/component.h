// SPDX-License-Identifier: Apache-2.0
// One updatable component: who it is, which firmware is active on it, and how
// new firmware gets there. A module owns exactly one, in a function-local static,
// and its entry points call it from several threads: the library asks for version
// and progress while an update runs. It needs no destructor, because an update
// that ran out of time may still use it while the process exits.
// What can fail throws std::system_error; the entry points turn that into a code.
#ifndef MODULES_COMMON_COMPONENT_H
#define MODULES_COMMON_COMPONENT_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace fwcomponent {

struct ComponentIdentity {
  const char* empId;             // package identifier; "" for an EXT- module
  const char* firmwareName;      // names the component's flash
  unsigned int expectedSeconds;  // duration of an update of unknown size
  unsigned int kibPerSecond;     // usual speed, for the duration when the size is known
};

class Component {
 public:
  constexpr explicit Component(const ComponentIdentity& identity) : identity_(identity) {}
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  const char* empId() const { return identity_.empId; }

  // Keeps who asks, for the journal. data may be null; texts are cut at 127
  // characters.
  void setContext(const char* libName, int caller, const char* data);

  // "0.0.0" before the first update. EBADMSG when the flash is corrupt.
  std::string activeVersion() const;

  // Whether version is newer than the active one; a corrupt flash is older than
  // everything, so that it can be repaired. EINVAL for what is no version of at most
  // 127 characters.
  bool isNewer(const char* version);

  // Write the image and make it active (see UpdateRun). The version is that of the
  // "info.json" beside the file; in memory, the one that this thread asked isNewer about.
  void updateFromFile(const char* path, unsigned long crc);
  void updateFromMemory(const unsigned char* data, int length);

  // Writes into the platform's log, under the library's name, why an update failed. Callers show
  // it behind their own sentence.
  void tellWhy(const std::exception& error) const noexcept;

  int expectedSeconds() const;
  unsigned int progress() const;
  void allUpdateDone() const;

 private:
  using Text = char[128];

  void runRecorded(const std::string& version, const std::function<void()>& update);
  void noteImageSize(std::uint64_t size);

  const ComponentIdentity identity_;
  mutable std::mutex mutex_;  // guards what follows
  Text libName_ = {};
  int caller_ = 0;
  Text data_ = {};
  std::uint64_t lastImageSize_ = 0;
};

}  // namespace fwcomponent

#endif
