// SPDX-License-Identifier: Apache-2.0
#include "library/meaning-table.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "library-messages.h"
#include "library/library.h"

namespace tool {
namespace {

constexpr int kErrorPriority = 6;

bool isError(const LogMessage& message) {
  return message.priority >= kErrorPriority;
}

// Of the module's update; the time-out is logged with the same text.
bool isThrown(const LogMessage& message) {
  return message.function != "doUpdateFirmware" && message.function != "doUpdateFirmwareAll";
}

bool deniedByErrno(const LogMessage& message) {
  return message.errorNumber == EACCES || message.errorNumber == EPERM;
}

bool mkdirDenied(const LogMessage& message) {
  return message.arguments.size() > 2 && message.arguments[2] == std::to_string(EACCES);
}

bool deniedByText(const LogMessage& message) {
  return message.text.find(std::strerror(EACCES)) != std::string::npos;
}

// errno may be left over from an earlier call: a file that can be read was not
// the reason.
bool unreadable(const LogMessage& message) {
  return message.errorNumber == EACCES && !message.arguments.empty() &&
         access(message.arguments.back().c_str(), R_OK) != 0;
}

// Then it tells more than the system's last error, which may be older than the failure.
bool answersErrorNumber(const LogMessage& message) {
  return message.arguments.size() > 1 && answerText(message.arguments[1]) != message.arguments[1];
}

bool withErrorText(const LogMessage& message) {
  return message.errorNumber != 0;
}

// Of a USB package, whose version block is read with the caller's key.
bool ofPackage(const LogMessage& message) {
  return message.function == "getNeedUpdateList" || message.function == "updateUSB";
}

bool isAbsent(const LogMessage& message) {
  return !message.arguments.empty() && access(message.arguments[0].c_str(), F_OK) != 0;
}

bool noImageName(const LogMessage& message) {
  return !message.arguments.empty() && message.arguments[0].find("//") != std::string::npos;
}

constexpr const char* kAsRoot =
    "Run the command as root, or as the user that the device's update service runs as.";
constexpr const char* kNewImage =
    "Install the image and its info.json again; the firmware on the module is unchanged.";
constexpr const char* kAskVendor =
    "Install a version of the module that fits this device, or remove the file.";
constexpr const char* kOldFirmware =
    "The old firmware stays active. Try again; if it fails again, see the log (--log).";

constexpr const char* kNewPackage =
    "Copy the package to the drive again; fw-pack verify tells what is wrong with it.";

constexpr Meaning kMeanings[] = {
    {MESSAGE_WRITE_SUCCEEDED, nullptr, Outcome::Updated, "{module} was updated.", ""},
    {MESSAGE_LOCK_NOT_OPENED, deniedByErrno, Outcome::NotPermitted,
     "This user may not use the update lock /dev/shm/sem.SEM_UPDATE_CONTROL ({errno}).", kAsRoot},
    {MESSAGE_LOCK_NOT_OPENED, nullptr, Outcome::Unexpected,
     "The update lock /dev/shm/sem.SEM_UPDATE_CONTROL could not be opened ({errno}).",
     "Check that /dev/shm is mounted and writable."},
    {MESSAGE_WRITE_FAILED, deniedByErrno, Outcome::NotPermitted,
     "{module} may not write the component for this user ({3}).", kAsRoot},
    {MESSAGE_WRITE_FAILED, answersErrorNumber, Outcome::ModuleFailed,
     "{module} could not write the firmware: it answered {answer}.", kOldFirmware},
    {MESSAGE_WRITE_FAILED, withErrorText, Outcome::ModuleFailed,
     "{module} could not write the firmware: it answered {1} ({3}).", kOldFirmware},
    {MESSAGE_WRITE_FAILED, nullptr, Outcome::ModuleFailed,
     "{module} could not write the firmware: it answered {1}.", kOldFirmware},
    {MESSAGE_PROCEDURE_FAILED, withErrorText, Outcome::ModuleFailed,
     "The update procedure of {module} failed ({2}).", "See the log (--log) for what the module did."},
    {MESSAGE_PROCEDURE_FAILED, nullptr, Outcome::ModuleFailed, "The update procedure of {module} failed.",
     "See the log (--log) for what the module did."},
    {MESSAGE_EXCEPTION, isThrown, Outcome::ModuleFailed, "{module} broke off with an error of its own: {0}.",
     kOldFirmware},
    {MESSAGE_USB_PACKAGE_NOT_OPENED, isAbsent, Outcome::NothingToDo, "There is no package for {module}.", ""},
    {MESSAGE_USB_PACKAGE_NOT_OPENED, unreadable, Outcome::NotPermitted,
     "This user may not read the package {0}.", kAsRoot},
    {MESSAGE_USB_PACKAGE_NOT_OPENED, nullptr, Outcome::RefusedImage,
     "The package {0} cannot be opened as a file.", kNewPackage},
    {MESSAGE_USB_PACKAGE_NOT_OPENED_AGAIN, nullptr, Outcome::RefusedImage,
     "The package {0} can no longer be opened; was the drive pulled out?", kNewPackage},
    {MESSAGE_NOT_SIGNED, nullptr, Outcome::RefusedImage, "The package {0} has no valid signature.",
     kNewPackage},
    {MESSAGE_NOT_SIGNED_ANY_MORE, nullptr, Outcome::RefusedImage, "The package {0} has no valid signature.",
     kNewPackage},
    {MESSAGE_USB_PACKAGE_TOO_SHORT, nullptr, Outcome::RefusedImage,
     "The package of {module} is too short or unreadable.", kNewPackage},
    {MESSAGE_USB_PACKAGE_NOT_DECRYPTED, nullptr, Outcome::RefusedImage,
     "The package of {module} cannot be decrypted: it is too short, too large, or memory is short.",
     kNewPackage},
    {MESSAGE_VERSIONS_NOT_COMPARED, ofPackage, Outcome::RefusedImage,
     "{module} finds no version in its package: the key is not the package's, or the component does not "
     "answer.",
     "Name the file with the key that the package was encrypted with (--key-file)."},
    {MESSAGE_EXPECTED_TIME_UNKNOWN, nullptr, Outcome::ModuleFailed,
     "{module} does not say how long its update takes, so it takes no package.", "Update the module."},
    {MESSAGE_VERSIONS_NOT_COMPARED, nullptr, Outcome::ModuleFailed,
     "{module} could not compare its version with the image's.",
     "Check that the component is connected and answers: fw-update info {module}"},
    {MESSAGE_NO_PACKAGE, unreadable, Outcome::NotPermitted,
     "This user may not see the extension package {0}.", kAsRoot},
    {MESSAGE_NO_PACKAGE, nullptr, Outcome::RefusedImage, "There is no extension package at {0}.",
     "Have the package downloaded first, or ask as another caller (--caller)."},
    {MESSAGE_MOUNT_POINT_NOT_MADE, mkdirDenied, Outcome::NotPermitted,
     "This user may not create the directory {0} that the extension package is mounted on.", kAsRoot},
    {MESSAGE_PACKAGE_NOT_MOUNTED, nullptr, Outcome::RefusedImage,
     "The extension package {0} could not be mounted.",
     "Download the package again: it is damaged, or the device refuses to mount it (--log tells)."},
    {MESSAGE_NO_USB_DRIVE, nullptr, Outcome::RefusedImage, "No USB drive is mounted.",
     "Plug in the drive that holds the image and wait until it is mounted at /opt/media/USBDriveA."},
    {MESSAGE_NO_IMAGE, unreadable, Outcome::NotPermitted, "This user may not see the firmware image {0}.",
     kAsRoot},
    {MESSAGE_NO_IMAGE, noImageName, Outcome::RefusedImage,
     "{module} has no firmware image: it gives no valid package identifier.",
     "See what is wrong with the module: fw-update list"},
    {MESSAGE_NO_IMAGE, nullptr, Outcome::RefusedImage, "There is no firmware image at {0}.",
     "Install the image there, or ask as another caller (--caller)."},
    {MESSAGE_NO_INFORMATION, unreadable, Outcome::NotPermitted, "This user may not see {0}.", kAsRoot},
    {MESSAGE_NO_INFORMATION, nullptr, Outcome::RefusedImage, "The image has no description: {0} is missing.",
     kNewImage},
    {MESSAGE_INFORMATION_NUMBER_INVALID, nullptr, Outcome::RefusedImage,
     "{1} has a \"crc\" or \"expected_time\" that is not a whole number ({0}).", kNewImage},
    {MESSAGE_INFORMATION_INVALID, unreadable, Outcome::NotPermitted, "This user may not read {0}.", kAsRoot},
    {MESSAGE_INFORMATION_INVALID, nullptr, Outcome::RefusedImage, "{0} is not a valid image description.",
     kNewImage},
    {MESSAGE_INFORMATION_NOT_LOADED, nullptr, Outcome::RefusedImage,
     "The image's info.json could not be read.", kNewImage},
    {MESSAGE_IMAGE_UNREADABLE, deniedByErrno, Outcome::NotPermitted,
     "This user may not read the firmware image of {module}.", kAsRoot},
    {MESSAGE_IMAGE_UNREADABLE, nullptr, Outcome::RefusedImage,
     "The firmware image of {module} could not be opened ({errno}).", kNewImage},
    {MESSAGE_CHECKSUM_DIFFERS, nullptr, Outcome::RefusedImage,
     "The firmware image of {0} is damaged: its checksum is not the one in info.json.", kNewImage},
    {MESSAGE_CHECKSUM_DIFFERS_NOW, nullptr, Outcome::RefusedImage,
     "The firmware image of {0} changed while the update waited: its checksum is not the one in info.json.",
     kNewImage},
    {MESSAGE_NOT_NEEDED, nullptr, Outcome::NothingToDo,
     "{module} does not need this image: version {1} is active.", ""},
    {MESSAGE_NOT_NEEDED_ANY_MORE, nullptr, Outcome::NothingToDo, "{module} no longer needs this image.", ""},
    // The library may miss the end of a short update and wait out its limit: what
    // ended the update tells more.
    {MESSAGE_TIMED_OUT, isTimeOut, Outcome::TimedOut,
     "{module} did not finish in time: the library gave up after {limit} s (expected {expected} s).",
     "The module's work was abandoned, not undone. Check the version with: fw-update info {module}"},
    {MESSAGE_MODULE_NOT_LOADED, nullptr, Outcome::BrokenModule,
     "{module}.so is not a library that can be loaded: {1}.", kAskVendor},
    // At debug priority the same text speaks of an optional entry point.
    {MESSAGE_ENTRY_POINT_MISSING, isError, Outcome::BrokenModule,
     "{module}.so lacks a function that every module must have: {0}.", kAskVendor},
    {MESSAGE_PACKAGE_ID_EMPTY, nullptr, Outcome::BrokenModule,
     "{module} gives no package identifier, so it has no firmware name.", kAskVendor},
    {MESSAGE_PACKAGE_ID_CHARACTERS, nullptr, Outcome::BrokenModule,
     "{module} gives the package identifier \"{0}\"; only letters and digits are allowed.", kAskVendor},
    {MESSAGE_PACKAGE_ID_WITHOUT_EMP, nullptr, Outcome::BrokenModule,
     "{module} gives the package identifier \"{0}\", which does not contain \"emp\".", kAskVendor},
    {MESSAGE_PENDING_LIST_NOT_SEEN, nullptr, Outcome::Unexpected,
     "The place of the pending list, /tmp/fwupdate-off-list.txt, cannot be looked at ({errno}).",
     "Check that /tmp is there and can be searched."},
    {MESSAGE_PENDING_LIST_IS_LINK, nullptr, Outcome::NotPermitted,
     "A link stands at /tmp/fwupdate-off-list.txt. The list was not written, and the link was left alone.",
     "Find out who put the link there, and remove it."},
    {MESSAGE_PENDING_LIST_STOPPED, nullptr, Outcome::Stopped,
     "The list was stopped half-way; what was found so far is in the file.",
     "Run it again: fw-update pending-list"},
    {MESSAGE_CONTROLS_UNREADABLE, deniedByText, Outcome::NotPermitted,
     "This user may not read the modules' directory /prd/usr/fwupdate/controls.", kAsRoot},
    {MESSAGE_CONTROLS_UNREADABLE, nullptr, Outcome::NoControls,
     "The modules' directory /prd/usr/fwupdate/controls cannot be read.",
     "Check that the directory exists and that /prd is mounted."},
};

}  // namespace

bool isTimeOut(const LogMessage& message) {
  return message.format == MESSAGE_TIMED_OUT && message.function == "update_timeout_wrapper";
}

MeaningTable meaningTable() {
  return {kMeanings, std::size(kMeanings)};
}

}  // namespace tool
