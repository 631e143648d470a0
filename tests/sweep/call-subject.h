// What a system call is about, as text that is the same in every run of a program.
// Plain functions; the process must be stopped by a tracer.
#ifndef TESTS_SWEEP_CALL_SUBJECT_H
#define TESTS_SWEEP_CALL_SUBJECT_H

#include <sys/types.h>

#include <cstdint>
#include <string>

// "openat"; "call-N" for a number that this system's headers do not have.
std::string nameOfCall(std::uint64_t number);

// A path ("create PATH" when the call may make the file), the file behind a descriptor,
// the kind of a futex or fcntl operation; empty for other calls. What differs from run to
// run (process numbers, random names) is shown as "#".
std::string subjectOfCall(pid_t process, const std::string& call, const std::uint64_t* arguments);

#endif
