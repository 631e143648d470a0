// SPDX-License-Identifier: Apache-2.0
// Memory that a module is lent for one call. It ends where an unreadable page begins, and
// is unreadable itself after the call, so that a module that goes too far or comes back
// later is caught in the act. For the child process that tries the module.
#ifndef FW_MODULE_CHECK_LENT_MEMORY_H
#define FW_MODULE_CHECK_LENT_MEMORY_H

#include <cstddef>
#include <string>

#include "transcript.h"

namespace fwmodule {

// What a place holds before the module writes to it; no byte of a valid text.
inline constexpr unsigned char kUnwritten = 0xA5;

class LentMemory {
 public:
  // A place for an answer, full of kUnwritten. "what" is a literal that a sentence can end
  // with: "the version of getActiveVersion".
  LentMemory(const char* what, std::size_t size);
  // The bytes, read-only, and a NUL behind them when it is a text.
  enum class Content { Text, WritableText, Bytes };
  LentMemory(const char* what, const std::string& content, Content kind);
  ~LentMemory();
  LentMemory(const LentMemory&) = delete;
  LentMemory& operator=(const LentMemory&) = delete;

  char* data() const { return data_; }
  // Whether the bytes before the beginning are as they were.
  bool untouchedBefore() const;

 private:
  std::size_t slot_;
  char* data_;
};

// From now on a fault in lent memory is told as such and ends the process, and a fatal
// signal is told before it ends the process. The transcript must outlive the process.
void catchFaults(const Transcript& transcript);

// Each thread that calls into the module needs a stack for that of its own, in case its
// ordinary one is full. For the life of the object.
class FaultStack {
 public:
  FaultStack();
  FaultStack(const FaultStack&) = delete;
  FaultStack& operator=(const FaultStack&) = delete;
  ~FaultStack();

 private:
  void* memory_;
};

}  // namespace fwmodule

#endif
