// SPDX-License-Identifier: Apache-2.0
// Keeps every message of a process as a compact record. A call site is
// registered once; a record is prepared and committed through the calling
// thread's handle, without a lock.
#ifndef PLATFORM_TRACE_STORAGE_H
#define PLATFORM_TRACE_STORAGE_H

#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace TraceStorage {

extern std::uint8_t enabled;  // 0: no trace work at all is done

struct ArgumentDescription {
  std::string typeName;  // readable (demangled)
  std::uint8_t flag;     // 1
  std::uint16_t size;    // bytes, 0x3FFF for variable length
};

struct CallLocation {
  const char* sourcePath;
  int line;
  std::uint32_t id;
  const char* functionName;
  const char* format;
  std::vector<ArgumentDescription> arguments;
};

class [[gnu::visibility("hidden")]] Thread;  // the calling thread's handle; opaque to the library

class Storage {
 public:
  void SaveLocation(const CallLocation& location);
  Thread* ThreadHandle();
  // A buffer of size bytes for one record, or null when it is to be dropped.
  unsigned char* PrepareCallBuffer(Thread* thread, unsigned int size, unsigned char kind,
                                   std::uint32_t locationId);
  void Commit(Thread* thread);
};

class Manager {
 public:
  static Manager& Instance();
  std::uint32_t NewLocationId();
  Storage& GetStorage();
};

}  // namespace TraceStorage

#pragma GCC visibility pop

#endif
