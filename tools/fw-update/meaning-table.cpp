#include "meaning-table.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

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
    {"========== [ %s update succeeded ] ==========", nullptr, Outcome::Updated, "{module} was updated.", ""},
    {"Parent\t: [sem_open] Failed\n", deniedByErrno, Outcome::NotPermitted,
     "This user may not use the update lock /dev/shm/sem.SEM_UPDATE_CONTROL ({errno}).", kAsRoot},
    {"Parent\t: [sem_open] Failed\n", nullptr, Outcome::Unexpected,
     "The update lock /dev/shm/sem.SEM_UPDATE_CONTROL could not be opened ({errno}).",
     "Check that /dev/shm is mounted and writable."},
    {"Error: %s Firmware doUpdate Fail %d (%d:%m)", deniedByErrno, Outcome::NotPermitted,
     "{module} may not write the component for this user ({3}).", kAsRoot},
    {"Error: %s Firmware doUpdate Fail %d (%d:%m)", withErrorText, Outcome::ModuleFailed,
     "{module} could not write the firmware: it answered {1} ({3}).", kOldFirmware},
    {"Error: %s Firmware doUpdate Fail %d (%d:%m)", nullptr, Outcome::ModuleFailed,
     "{module} could not write the firmware: it answered {1}.", kOldFirmware},
    {"Error: %s runProcess Fail (%d:%m)", withErrorText, Outcome::ModuleFailed,
     "The update procedure of {module} failed ({2}).", "See the log (--log) for what the module did."},
    {"Error: %s runProcess Fail (%d:%m)", nullptr, Outcome::ModuleFailed,
     "The update procedure of {module} failed.", "See the log (--log) for what the module did."},
    {"Error : %s", isThrown, Outcome::ModuleFailed, "{module} broke off with an error of its own: {0}.",
     kOldFirmware},
    {"Error: %s open fail", isAbsent, Outcome::NothingToDo, "There is no package for {module}.", ""},
    {"Error: %s open fail", unreadable, Outcome::NotPermitted, "This user may not read the package {0}.",
     kAsRoot},
    {"Error: %s open fail", nullptr, Outcome::RefusedImage, "The package {0} cannot be opened as a file.",
     kNewPackage},
    {"Error: %s file open", nullptr, Outcome::RefusedImage,
     "The package {0} can no longer be opened; was the drive pulled out?", kNewPackage},
    {"Error: %s is NOT signed", nullptr, Outcome::RefusedImage, "The package {0} has no valid signature.",
     kNewPackage},
    {"Error: %s file is NOT signed", nullptr, Outcome::RefusedImage,
     "The package {0} has no valid signature.", kNewPackage},
    {"Error: iv is worng", nullptr, Outcome::RefusedImage,
     "The package of {module} is too short or unreadable.", kNewPackage},
    {"Error: Decryption data is null", nullptr, Outcome::RefusedImage,
     "The package of {module} cannot be decrypted: it is too short, too large, or memory is short.",
     kNewPackage},
    {"Error: %s Firmware CheckVersion Fail", ofPackage, Outcome::RefusedImage,
     "{module} finds no version in its package: the key is not the package's, or the component does not "
     "answer.",
     "Name the file with the key that the package was encrypted with (--key-file)."},
    {"Error: %s getExpectedTime Fail", nullptr, Outcome::ModuleFailed,
     "{module} does not say how long its update takes, so it takes no package.", "Update the module."},
    {"Error: %s Firmware CheckVersion Fail", nullptr, Outcome::ModuleFailed,
     "{module} could not compare its version with the image's.",
     "Check that the component is connected and answers: fw-update info {module}"},
    {"Error: file no exist (%s)", unreadable, Outcome::NotPermitted,
     "This user may not see the extension package {0}.", kAsRoot},
    {"Error: file no exist (%s)", nullptr, Outcome::RefusedImage, "There is no extension package at {0}.",
     "Have the package downloaded first, or ask as another caller (--caller)."},
    {"Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]", mkdirDenied, Outcome::NotPermitted,
     "This user may not create the directory {0} that the extension package is mounted on.", kAsRoot},
    {"Error: Firmware EMP Mount Fail.(%s)", nullptr, Outcome::RefusedImage,
     "The extension package {0} could not be mounted.",
     "Download the package again: it is damaged, or the device refuses to mount it (--log tells)."},
    {"Error: Usb mount path Not found.", nullptr, Outcome::RefusedImage, "No USB drive is mounted.",
     "Plug in the drive that holds the image and wait until it is mounted at /opt/media/USBDriveA."},
    {"Error: Firmware binary file no exist (%s)", unreadable, Outcome::NotPermitted,
     "This user may not see the firmware image {0}.", kAsRoot},
    {"Error: Firmware binary file no exist (%s)", noImageName, Outcome::RefusedImage,
     "{module} has no firmware image: it gives no valid package identifier.",
     "See what is wrong with the module: fw-update list"},
    {"Error: Firmware binary file no exist (%s)", nullptr, Outcome::RefusedImage,
     "There is no firmware image at {0}.", "Install the image there, or ask as another caller (--caller)."},
    {"Error: Firmware json file no exist (%s)", unreadable, Outcome::NotPermitted,
     "This user may not see {0}.", kAsRoot},
    {"Error: Firmware json file no exist (%s)", nullptr, Outcome::RefusedImage,
     "The image has no description: {0} is missing.", kNewImage},
    {"Error: json crc read fail error:%s (%s)\n", nullptr, Outcome::RefusedImage,
     "{1} has a \"crc\" or \"expected_time\" that is not a whole number ({0}).", kNewImage},
    {"Error: json loadInformation fail.(%s)\n", unreadable, Outcome::NotPermitted,
     "This user may not read {0}.", kAsRoot},
    {"Error: json loadInformation fail.(%s)\n", nullptr, Outcome::RefusedImage,
     "{0} is not a valid image description.", kNewImage},
    {"Error: json information load fail", nullptr, Outcome::RefusedImage,
     "The image's info.json could not be read.", kNewImage},
    {"Error: binary file is NULL\n", deniedByErrno, Outcome::NotPermitted,
     "This user may not read the firmware image of {module}.", kAsRoot},
    {"Error: binary file is NULL\n", nullptr, Outcome::RefusedImage,
     "The firmware image of {module} could not be opened ({errno}).", kNewImage},
    {"Error: %s Firmware CRC32 different", nullptr, Outcome::RefusedImage,
     "The firmware image of {0} is damaged: its checksum is not the one in info.json.", kNewImage},
    {"Error: %s Firmware crc32 different", nullptr, Outcome::RefusedImage,
     "The firmware image of {0} changed while the update waited: its checksum is not the one in info.json.",
     kNewImage},
    {"Error: %s not need update, version is %s", nullptr, Outcome::NothingToDo,
     "{module} does not need this image: version {1} is active.", ""},
    {"Error: %s Firmware not need update", nullptr, Outcome::NothingToDo,
     "{module} no longer needs this image.", ""},
    // The library may miss the end of a short update and wait out its limit: what
    // ended the update tells more.
    {"%s", isTimeOut, Outcome::TimedOut,
     "{module} did not finish in time: the library gave up after {limit} s (expected {expected} s).",
     "The module's work was abandoned, not undone. Check the version with: fw-update info {module}"},
    {"Error: dlsym libfile: %s error: %s\n", nullptr, Outcome::BrokenModule,
     "{module}.so is not a library that can be loaded: {1}.", kAskVendor},
    // At debug priority the same text speaks of an optional entry point.
    {"Error: dlsym error: %s\n", isError, Outcome::BrokenModule,
     "{module}.so lacks a function that every module must have: {0}.", kAskVendor},
    {"Error: EMPID is empty.(%s)", nullptr, Outcome::BrokenModule,
     "{module} gives no package identifier, so it has no firmware name.", kAskVendor},
    {"Error: use EMPID only English and numbers. %s", nullptr, Outcome::BrokenModule,
     "{module} gives the package identifier \"{0}\"; only letters and digits are allowed.", kAskVendor},
    {"Error: EMPID is Wrong (%s)", nullptr, Outcome::BrokenModule,
     "{module} gives the package identifier \"{0}\", which does not contain \"emp\".", kAskVendor},
    {"lstat error\n", nullptr, Outcome::Unexpected,
     "The place of the pending list, /tmp/fwupdate-off-list.txt, cannot be looked at ({errno}).",
     "Check that /tmp is there and can be searched."},
    {"symbolic link is detected\n", nullptr, Outcome::NotPermitted,
     "A link stands at /tmp/fwupdate-off-list.txt. The list was not written, and the link was left alone.",
     "Find out who put the link there, and remove it."},
    {"Task is not running, writeFirmwareUpdateList stop", nullptr, Outcome::Stopped,
     "The list was stopped half-way; what was found so far is in the file.",
     "Run it again: fw-update pending-list"},
    {"File System Exception: %s ", deniedByText, Outcome::NotPermitted,
     "This user may not read the modules' directory /prd/usr/fwupdate/controls.", kAsRoot},
    {"File System Exception: %s ", nullptr, Outcome::NoControls,
     "The modules' directory /prd/usr/fwupdate/controls cannot be read.",
     "Check that the directory exists and that /prd is mounted."},
};

}  // namespace

bool isTimeOut(const LogMessage& message) {
  return message.format == "%s" && message.function == "update_timeout_wrapper";
}

MeaningTable meaningTable() {
  return {kMeanings, std::size(kMeanings)};
}

}  // namespace tool
