// SPDX-License-Identifier: Apache-2.0
// The module under test, loaded into a child process. Every call is told to the
// transcript, gets memory that is guarded, and lets no exception out. Several threads may
// call at once.
#ifndef FW_MODULE_CHECK_LOADED_MODULE_H
#define FW_MODULE_CHECK_LOADED_MODULE_H

#include <climits>
#include <string>

#include "fw-update-types.h"
#include "transcript.h"

namespace fwmodule {

// The result of an entry point that threw.
inline constexpr int kThrew = INT_MIN;

struct TextAnswer {
  int result = kThrew;
  bool written = false;  // at least one byte
  bool ended = false;    // by a NUL within the 128 bytes
  std::string text;      // as a caller sees it who zeroed the place before
};

template <typename Number>
struct NumberAnswer {
  int result = kThrew;
  bool written = false;
  Number value = 0;
};

class LoadedModule {
 public:
  // libraryName is what setContext hears; the broken entry points are left alone.
  LoadedModule(Transcript& transcript, const std::string& path, const std::string& libraryName,
               EntryPointSet broken);
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  // When it is not, the transcript has been told why.
  bool isLoaded() const { return library_ != nullptr; }
  // Whether the entry point may be called.
  bool has(EntryPoint entryPoint) const {
    return addresses_[static_cast<std::size_t>(entryPoint)] != nullptr;
  }
  void unload();

  // "situation" is a literal that follows a sentence about the call: "given an empty
  // version". The entry point must be there.
  int setContext(CallerTypes caller, const std::string& data, const char* situation);
  TextAnswer getEmpId(const char* situation);
  TextAnswer getActiveVersion(const char* situation);
  NumberAnswer<int> checkVersion(const std::string& version, const char* situation);
  int doUpdate(const std::string& path, unsigned long crc, const char* situation);
  int doUpdateDecryption(const std::string& image, const char* situation);
  int allUpdateDone(const char* situation);
  NumberAnswer<int> getExpectedTime(const char* situation);
  NumberAnswer<unsigned int> getUpdateProgress(const char* situation);

 private:
  template <typename Function>
  Function* function(EntryPoint entryPoint) const;
  template <typename Body>
  int call(EntryPoint entryPoint, const char* situation, Body body);
  template <typename Body>
  TextAnswer textFrom(EntryPoint entryPoint, const char* what, const char* situation, Body body);
  template <typename Number, typename Body>
  NumberAnswer<Number> numberFrom(EntryPoint entryPoint, const char* what, const char* situation, Body body);

  Transcript& transcript_;
  const std::string libraryName_;
  void* library_ = nullptr;
  void* addresses_[kEntryPointCount] = {};
};

}  // namespace fwmodule

#endif
