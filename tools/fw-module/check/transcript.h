// SPDX-License-Identifier: Apache-2.0
// What a child process tells the checking process while it tries a module: every call
// into the module and out of it, and what came of it. The records go through a pipe, so
// that those before a crash or a hang are there. Any thread of the child may write.
#ifndef FW_MODULE_CHECK_TRANSCRIPT_H
#define FW_MODULE_CHECK_TRANSCRIPT_H

#include <climits>
#include <cstdint>
#include <string>
#include <type_traits>

#include "checks.h"
#include "entry-points.h"

namespace fwmodule {

enum class RecordKind : std::uint8_t {
  Enter,  // text: in which situation
  Leave,
  Passed,
  Finding,     // text: a sentence
  NotChecked,  // text: why not
  Fact,        // text: the value
  Fault,       // a finding that ended the process; text: what the entry point did
  Signal,      // number: the signal that ends the process
  Refused,     // text: why the child could not begin
  Done,
};

// What later trials want to know.
enum class Fact : std::uint8_t { Identifier, ActiveVersion, NewerVersion, Updates };

struct Record {
  RecordKind kind;
  EntryPoint entryPoint;
  Check check;
  Fact fact;
  std::uint32_t thread;
  std::int32_t number;
  char text[480];
};
static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) <= PIPE_BUF,
              "one write, so that the records of several threads do not mix");

class Transcript {
 public:
  // Writes to the descriptor, which stays its owner's.
  explicit Transcript(int descriptor) : descriptor_(descriptor) {}
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;

  void enter(EntryPoint entryPoint, const char* situation);
  void leave(EntryPoint entryPoint);
  void passed(Check check);
  void finding(Check check, EntryPoint entryPoint, const std::string& sentence);
  // One of the two.
  void judge(bool good, Check check, EntryPoint entryPoint, const std::string& sentence);
  void notChecked(Check check, const std::string& reason);
  void fact(Fact fact, const std::string& value);
  void refused(const std::string& reason);
  void done();

  // For signal handlers: what the thread was doing is known by itself.
  void fault(Check check, const char* const (&text)[2]) const;
  void signal(int number) const;

 private:
  void write(const Record& entry) const;

  int descriptor_;
};

}  // namespace fwmodule

#endif
