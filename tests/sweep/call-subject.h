// SPDX-License-Identifier: Apache-2.0
// What a system call is about, as text that is the same in every run of a program.
// Plain functions; the process must be stopped by a tracer.
#ifndef TESTS_SWEEP_CALL_SUBJECT_H
#define TESTS_SWEEP_CALL_SUBJECT_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

struct SystemCall {
  std::string name;  // "openat"; "call-N" for a number that this system's headers do not have
  std::array<std::uint64_t, 6> arguments;
};

// The call that a thread makes, by its number and its six arguments. 32-bit x86 has one
// number for all calls of sockets; they get names and arguments of their own.
SystemCall systemCall(pid_t process, std::uint64_t number, const std::uint64_t* arguments);

// A path ("create PATH" when the call may make the file), the file behind a descriptor,
// the kind of a futex or fcntl operation; empty for other calls. What differs from run to
// run (process numbers, random names) is shown as "#".
std::string subjectOfCall(pid_t process, const SystemCall& call);

#endif
