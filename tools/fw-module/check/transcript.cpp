// SPDX-License-Identifier: Apache-2.0
#include "transcript.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace fwmodule {
namespace {

std::atomic<std::uint32_t> threads{0};

struct CurrentThread {
  std::uint32_t number = 0;
  EntryPoint inside = EntryPoint::Nowhere;
};

// Numbers count from 1; a thread of the module's own has 0.
thread_local CurrentThread current;

Record record(RecordKind kind) {
  Record made{};
  made.kind = kind;
  made.entryPoint = EntryPoint::Nowhere;
  made.thread = current.number;
  return made;
}

void append(char (&destination)[sizeof Record::text], const char* text) {
  const std::size_t used = strnlen(destination, sizeof destination - 1);
  const std::size_t length = std::min(std::strlen(text), sizeof destination - 1 - used);
  std::memcpy(destination + used, text, length);
}

}  // namespace

void Transcript::enter(EntryPoint entryPoint, const char* situation) {
  if (current.number == 0) {
    current.number = ++threads;
  }
  current.inside = entryPoint;
  Record entry = record(RecordKind::Enter);
  entry.entryPoint = entryPoint;
  append(entry.text, situation);
  write(entry);
}

void Transcript::leave(EntryPoint entryPoint) {
  current.inside = EntryPoint::Nowhere;
  Record entry = record(RecordKind::Leave);
  entry.entryPoint = entryPoint;
  write(entry);
}

void Transcript::passed(Check check) {
  Record entry = record(RecordKind::Passed);
  entry.check = check;
  write(entry);
}

void Transcript::finding(Check check, EntryPoint entryPoint, const std::string& sentence) {
  Record entry = record(RecordKind::Finding);
  entry.check = check;
  entry.entryPoint = entryPoint;
  append(entry.text, sentence.c_str());
  write(entry);
}

void Transcript::judge(bool good, Check check, EntryPoint entryPoint, const std::string& sentence) {
  if (good) {
    passed(check);
  } else {
    finding(check, entryPoint, sentence);
  }
}

void Transcript::notChecked(Check check, const std::string& reason) {
  Record entry = record(RecordKind::NotChecked);
  entry.check = check;
  append(entry.text, reason.c_str());
  write(entry);
}

void Transcript::fact(Fact fact, const std::string& value) {
  Record entry = record(RecordKind::Fact);
  entry.fact = fact;
  append(entry.text, value.c_str());
  write(entry);
}

void Transcript::refused(const std::string& reason) {
  Record entry = record(RecordKind::Refused);
  append(entry.text, reason.c_str());
  write(entry);
}

void Transcript::done() {
  write(record(RecordKind::Done));
}

void Transcript::fault(Check check, const char* const (&text)[2]) const {
  Record entry = record(RecordKind::Fault);
  entry.check = check;
  entry.entryPoint = current.inside;
  append(entry.text, text[0]);
  append(entry.text, text[1]);
  write(entry);
}

void Transcript::signal(int number) const {
  Record entry = record(RecordKind::Signal);
  entry.entryPoint = current.inside;
  entry.number = number;
  write(entry);
}

void Transcript::write(const Record& entry) const {
  const int error = errno;
  while (::write(descriptor_, &entry, sizeof entry) < 0 && errno == EINTR) {
  }
  errno = error;  // a module may leave its own there
}

}  // namespace fwmodule
