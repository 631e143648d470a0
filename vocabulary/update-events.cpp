// SPDX-License-Identifier: Apache-2.0
#include "update-events.h"

#include "library-messages.h"

namespace fwmessages {
namespace {

constexpr struct {
  const char* format;
  const char* function;   // null: of any
  std::size_t arguments;  // at least
  Event event;
} kEvents[] = {
    {MESSAGE_CHECK_BEGINS, nullptr, 2, Event::CheckBegins},
    {MESSAGE_NOT_NEEDED, nullptr, 0, Event::NotNeeded},
    {MESSAGE_SIGNATURE_VALID, nullptr, 0, Event::PackageChecked},
    {MESSAGE_SIGNATURE_INVALID, nullptr, 0, Event::PackageChecked},
    {MESSAGE_VERIFIER_NOT_LOADED, nullptr, 0, Event::PackageChecked},
    {MESSAGE_VERIFIER_WITHOUT_ENTRY, nullptr, 0, Event::PackageChecked},
    {MESSAGE_USB_PACKAGE_NOT_OPENED, nullptr, 0, Event::PackageMissing},
    {MESSAGE_USB_PACKAGE_NOT_OPENED_AGAIN, nullptr, 0, Event::PackageMissing},
    {MESSAGE_LOCK_WANTED, nullptr, 2, Event::LockWanted},
    {MESSAGE_LOCK_TAKEN, nullptr, 1, Event::LockTaken},
    {MESSAGE_WRITE_BEGINS, "updateUSB", 1, Event::PackageWriteBegins},
    {MESSAGE_WRITE_BEGINS, nullptr, 1, Event::WriteBegins},
    {MESSAGE_PROCEDURE_BEGINS, nullptr, 1, Event::ProcedureBegins},
    {MESSAGE_WRITE_SUCCEEDED, nullptr, 1, Event::Succeeded},
    {MESSAGE_WRITE_FAILED, nullptr, 0, Event::Failed},
    {MESSAGE_PROCEDURE_FAILED, nullptr, 0, Event::Failed},
    {MESSAGE_NOT_NEEDED_ANY_MORE, nullptr, 0, Event::NotNeededAnyMore},
    {MESSAGE_TIMED_OUT, "update_timeout_wrapper", 0, Event::TimedOut},
    {MESSAGE_REQUEST_ENDS, nullptr, 3, Event::RequestEnds},
    {MESSAGE_RUN_BEGINS, nullptr, 0, Event::RunBegins},
    {MESSAGE_POWER_RELEASE, nullptr, 0, Event::RunEnds},
};

}  // namespace

Event eventOf(std::string_view format, std::string_view function, std::size_t argumentCount) {
  for (const auto& row : kEvents) {
    if (format == row.format && (row.function == nullptr || function == row.function)) {
      return argumentCount < row.arguments ? Event::Other : row.event;
    }
  }
  return format.substr(0, 5) == "Error" ? Event::Error : Event::Other;
}

}  // namespace fwmessages
