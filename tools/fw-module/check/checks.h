// SPDX-License-Identifier: Apache-2.0
// What a module is checked for: one table. An error breaks the contract; a warning is
// about what the contract allows but will hurt.
#ifndef FW_MODULE_CHECK_CHECKS_H
#define FW_MODULE_CHECK_CHECKS_H

#include <cstddef>
#include <cstdint>

namespace fwmodule {

enum class Severity { Error, Warning };

enum class Check : std::uint8_t {
  // The file.
  Library,
  Name,
  ExtensionCase,
  EntryPoints,
  EntryPointKind,
  Exports,
  Needed,
  Loads,
  // Everywhere.
  Crash,
  Hang,
  Exception,
  Exit,
  Overrun,
  TextKept,
  Descriptors,
  Threads,
  Processes,
  Prints,
  // Identity.
  Context,
  TextEnd,
  Identifier,
  ExtensionIdentifier,
  ActiveVersion,
  SameAnswer,
  // Versions.
  Need,
  NeedValue,
  VersionNewer,
  VersionEqual,
  VersionOlder,
  VersionEmpty,
  VersionNonsense,
  // Updates.
  Update,
  UpdateVersion,
  ImageVersion,
  ExpectedTime,
  ExpectedTimeLong,
  ProgressRange,
  ProgressFalls,
  QueryWaits,
  ImageMissing,
  ImageEmpty,
  ImageCorrupt,
  FullDisk,
  PowerCut,
  OldFirmware,
  ResultCode,
  Reason,
  Decryption,
  AllDone,
};

struct CheckInfo {
  Check check;
  const char* id;
  Severity severity;
  const char* title;
  const char* advice;
};

inline constexpr CheckInfo kChecks[] = {
    {Check::Library, "library", Severity::Error, "The file is a shared library for this machine",
     "Build it with -shared -fPIC for the set's processor, and check it with the fw-module of that "
     "processor."},
    {Check::Name, "name", Severity::Error, "The file has a module's name",
     "Name it NAME.so, with 1 to 127 characters before \".so\"; the update library ignores all else or "
     "cannot name it."},
    {Check::ExtensionCase, "ext-case", Severity::Warning, "\"EXT-\" in the name is meant",
     "\"EXT-\" in any case and place makes a module run a procedure of its own. Write it in capitals when "
     "that is meant, and take another name otherwise."},
    {Check::EntryPoints, "entry-points", Severity::Error, "Every required entry point is exported",
     "Include fw-update-module.h and define the function, with just these parameters; see that neither a "
     "version script nor -fvisibility hides it."},
    {Check::EntryPointKind, "entry-point-kind", Severity::Error, "Every entry point is a function",
     "Define a function of this name; the update library calls what it finds."},
    {Check::Exports, "exports", Severity::Warning, "Nothing but entry points is exported",
     "Build with -fvisibility=hidden and a version script (exports.map of fw-module new), so that symbols "
     "of several modules do not mix in one process."},
    {Check::Needed, "needed", Severity::Warning, "The module does not link the update library",
     "Link fwupdate::fw-update-module, which has the headers alone, instead of the library."},
    {Check::Loads, "loads", Severity::Error, "The library loads",
     "Link all that it uses (-Wl,--no-undefined tells at build time) and see that its libraries are on the "
     "set."},

    {Check::Crash, "crash", Severity::Error, "Nothing crashes",
     "Run it in a debugger, or build it with -fsanitize=address,undefined. A crash ends the caller's "
     "process, and the update lock stays taken."},
    {Check::Hang, "hang", Severity::Error, "Every entry point returns",
     "Give every wait a time limit and take no lock that another entry point holds for long. If the "
     "hardware is just slow, raise --timeout."},
    {Check::Exception, "exception", Severity::Error, "No C++ exception leaves an entry point",
     "Catch everything at the entry point and answer a negative errno value."},
    {Check::Exit, "exit", Severity::Error, "The module does not end the process",
     "Answer an error code instead of calling exit, quick_exit or exec; the process is the caller's."},
    {Check::Overrun, "overrun", Severity::Error, "Only what the caller lends is read and written",
     "Texts for the module end with a NUL and are read-only; places for texts have 128 bytes; need, seconds "
     "and progress are one int each."},
    {Check::TextKept, "text-kept", Severity::Error, "What the caller lends is not used after the call",
     "Copy what you need later; the memory is the caller's and goes away."},
    {Check::Descriptors, "descriptors", Severity::Error, "No file descriptor is left open",
     "Close the file on every way out, failures included."},
    {Check::Threads, "threads", Severity::Error, "No thread stays behind",
     "End and join the thread before the entry point returns; a library can be unloaded then."},
    {Check::Processes, "processes", Severity::Error, "No process stays behind",
     "Wait for every child process before the entry point returns."},
    {Check::Prints, "prints", Severity::Warning, "Nothing is printed",
     "Standard output and standard error are the caller's; write to the platform log or to a file."},

    {Check::Context, "context", Severity::Error, "setContext answers 0",
     "Anything else makes the update fail. Answer 0 for every caller and any request data."},
    {Check::TextEnd, "text-end", Severity::Error, "Texts end with a NUL within their 128 bytes",
     "Write at most 127 characters and the NUL, for example with snprintf(out, 128, ...)."},
    {Check::Identifier, "identifier", Severity::Error, "The package identifier is valid",
     "Write ASCII letters and digits with \"emp\", in lower case, among them and more than that, such as "
     "doorempfw. A module with a procedure of its own needs \"EXT-\" in its file name instead."},
    {Check::ExtensionIdentifier, "ext-identifier", Severity::Warning,
     "An EXT- module has no package identifier",
     "Nobody asks an EXT- module for it, and no image is looked for. Write an empty text, or drop \"EXT-\" "
     "from the file's name if images are to reach the module."},
    {Check::ActiveVersion, "active-version", Severity::Error, "getActiveVersion writes a version",
     "Answer 0 and write printable text; 0.0.0 when there is no firmware yet. If the component's hardware "
     "is missing here, check on the set."},
    {Check::SameAnswer, "same-answer", Severity::Error, "The same question gets the same answer",
     "Guard what entry points share with a mutex, and let a query change nothing."},

    {Check::Need, "need", Severity::Error, "checkVersion writes its answer",
     "With the result 0, always write *need; callers do not preset it to 0."},
    {Check::NeedValue, "need-value", Severity::Warning, "The answer of checkVersion is 0 or 1",
     "Write 1 for needed, not another number: callers count exactly 1 as needed, and take a negative answer "
     "for needed and failed at once."},
    {Check::VersionNewer, "version-newer", Severity::Error, "A newer version is needed",
     "Write 1 when the version is newer than the active one. If your versions count differently, give a "
     "newer one with --version."},
    {Check::VersionEqual, "version-equal", Severity::Error, "The active version is not needed",
     "Write 0 for the version that is active; otherwise the same update runs again and again."},
    {Check::VersionOlder, "version-older", Severity::Warning, "An older version is not needed",
     "Compare versions by order, not for being different; otherwise an old image takes the firmware back."},
    {Check::VersionEmpty, "version-empty", Severity::Warning, "An empty version is not needed",
     "Answer -EINVAL for what is no version."},
    {Check::VersionNonsense, "version-nonsense", Severity::Warning, "What is no version is not needed",
     "Answer -EINVAL for what is no version."},

    {Check::Update, "update", Severity::Error, "A good image is written",
     "Answer 0 when the image has been written. If the module takes only images of its own form, give one "
     "with --image and --version; if the hardware is missing here, check on the set."},
    {Check::UpdateVersion, "update-version", Severity::Error, "After an update its version is active",
     "Answer 0 only when the new firmware is active, and let getActiveVersion tell the version of its "
     "\"info.json\"."},
    {Check::ImageVersion, "image-version", Severity::Error, "The version is that of the image",
     "Read it from the \"info.json\" beside the image that doUpdate is given: a query on another thread may "
     "have asked checkVersion about another version since."},
    {Check::ExpectedTime, "expected-time", Severity::Error, "The expected time is above 0",
     "Write the seconds that an update takes and answer 0. USB packages are announced with this time; "
     "nothing ends such an update."},
    {Check::ExpectedTimeLong, "expected-time-long", Severity::Warning, "The expected time is below an hour",
     "The value is seconds, not milliseconds; a hanging update is noticed only after it."},
    {Check::ProgressRange, "progress-range", Severity::Error, "Progress is 0 to 100",
     "Write a percentage from 0 to 100 and answer 0 at any time."},
    {Check::ProgressFalls, "progress-falls", Severity::Error, "Progress never falls during an update",
     "Count all steps of the update together, so that the second step does not begin at 0."},
    {Check::QueryWaits, "query-waits", Severity::Warning, "Queries do not wait for a running update",
     "Do not hold the lock that the query takes while the image is written."},
    {Check::ImageMissing, "image-missing", Severity::Error, "A missing image is refused",
     "Answer -ENOENT when the image cannot be opened."},
    {Check::ImageEmpty, "image-empty", Severity::Error, "An empty image is refused",
     "Answer an error: the checksum of an empty image is 0, so an \"info.json\" without one fits it."},
    {Check::ImageCorrupt, "image-corrupt", Severity::Error, "A corrupt image is refused",
     "Compute the CRC-32 of what you write (polynomial 0x01B23CA3) and compare it with the second argument; "
     "the file may have changed since the library looked."},
    {Check::FullDisk, "full-disk", Severity::Error, "A full disk is reported",
     "Check the result of every write, of fflush, fsync and fclose, and of rename."},
    {Check::PowerCut, "power-cut", Severity::Error, "A power cut leaves the old or the new firmware",
     "Write the new firmware beside the old one, fsync it, rename it, fsync the directory, and only then "
     "answer 0."},
    {Check::OldFirmware, "old-firmware", Severity::Error, "After a failed update the old version is active",
     "Write the new firmware beside the old one and switch in one step at the end."},
    {Check::ResultCode, "result-code", Severity::Warning, "A failure has a code of its own",
     "Answer a negative errno value other than -1: callers take 1 for a time-out and -1 for a refusal by "
     "the library."},
    {Check::Reason, "reason", Severity::Warning, "A failing update says why",
     "Before it answers, log what failed at error priority, with the library's name and \": \" before it: "
     "__dlog_print(2, DLOG_ERROR_PRIORITY, \"FWUPDATE\", \"libdoor: failed at 60 percent\"). fw-update and "
     "its history show it."},
    {Check::Decryption, "decryption", Severity::Error, "The image of a USB package is written",
     "Write the length bytes at data and answer 0; the version is the one that checkVersion was given. If "
     "you take no USB packages, do not export doUpdate_decryption."},
    {Check::AllDone, "all-done", Severity::Error, "allUpdateDone answers 0", "Answer 0."},
};

inline constexpr std::size_t kCheckCount = sizeof kChecks / sizeof kChecks[0];

constexpr const CheckInfo& infoOf(Check check) {
  return kChecks[static_cast<std::size_t>(check)];
}

constexpr bool checksAreInOrder() {
  for (std::size_t i = 0; i < kCheckCount; ++i) {
    if (static_cast<std::size_t>(kChecks[i].check) != i) {
      return false;
    }
  }
  return true;
}
static_assert(checksAreInOrder(), "infoOf finds a check at its own place");

}  // namespace fwmodule

#endif
