// SPDX-License-Identifier: Apache-2.0
// What the library says: the text of each of its messages, under a name that tells what it
// says, and the numbers that those who read the messages go by. The library logs by these
// names; whoever reads its log or its traces compares with them. The texts are an interface
// and stay to the letter, misspellings included. Nothing here is code: a program that
// includes it links nothing.
// Macros, because FW_LOG puts each text behind the prefix, as one literal.
#ifndef LIBRARY_MESSAGES_H
#define LIBRARY_MESSAGES_H

// Before every message: file, function, line.
#define MESSAGE_PREFIX "%s: %s(%d) > "

// ---- Loading modules --------------------------------------------------------------

#define MESSAGE_MODULE_NOT_LOADED "Error: dlsym libfile: %s error: %s\n"
#define MESSAGE_ENTRY_POINT_MISSING "Error: dlsym error: %s\n"
#define MESSAGE_MODULE_IS_EXTENSION "Not Update Symbol [%s]"
#define MESSAGE_PACKAGE_ID_EMPTY "Error: EMPID is empty.(%s)"
#define MESSAGE_PACKAGE_ID_CHARACTERS "Error: use EMPID only English and numbers. %s"
#define MESSAGE_PACKAGE_ID_WITHOUT_EMP "Error: EMPID is Wrong (%s)"
#define MESSAGE_CONTROLS_UNREADABLE "File System Exception: %s "
#define MESSAGE_MODULES_NOT_LOADED "Fw-Service symbol is not loaded"

// ---- Before an update -------------------------------------------------------------

#define MESSAGE_CHECK_BEGINS "%s Firmware isNeedUpdateModules Try(%s)"
#define MESSAGE_NO_USB_DRIVE "Error: Usb mount path Not found."
#define MESSAGE_NO_IMAGE "Error: Firmware binary file no exist (%s)"
#define MESSAGE_NO_INFORMATION "Error: Firmware json file no exist (%s)"
#define MESSAGE_INFORMATION_INVALID "Error: json loadInformation fail.(%s)\n"
#define MESSAGE_INFORMATION_NUMBER_INVALID "Error: json crc read fail error:%s (%s)\n"
#define MESSAGE_INFORMATION_NOT_LOADED "Error: json information load fail"
#define MESSAGE_IMAGE_UNREADABLE "Error: binary file is NULL\n"
#define MESSAGE_CHECKSUM_DIFFERS "Error: %s Firmware CRC32 different"
#define MESSAGE_CHECKSUM_DIFFERS_NOW "Error: %s Firmware crc32 different"
#define MESSAGE_VERSIONS_NOT_COMPARED "Error: %s Firmware CheckVersion Fail"
#define MESSAGE_NOT_NEEDED "Error: %s not need update, version is %s"
#define MESSAGE_NOT_NEEDED_ANY_MORE "Error: %s Firmware not need update"

// ---- During an update -------------------------------------------------------------

// In seconds, whatever it says.
#define MESSAGE_LOCK_WANTED "%s update time %d ms"
#define MESSAGE_LOCK_TAKEN "%s Firmware Update Try"
#define MESSAGE_WRITE_BEGINS "========== [ %s update start ] =========="
#define MESSAGE_WRITE_SUCCEEDED "========== [ %s update succeeded ] =========="
#define MESSAGE_WRITE_FAILED "Error: %s Firmware doUpdate Fail %d (%d:%m)"
#define MESSAGE_PROCEDURE_BEGINS "%s Firmware runProcess Try"
#define MESSAGE_PROCEDURE_FAILED "Error: %s runProcess Fail (%d:%m)"
// Of update_timeout_wrapper alone: the firmware's name and kTimedOutSuffix.
#define MESSAGE_TIMED_OUT "%s"
#define MESSAGE_EXCEPTION "Error : %s"
#define MESSAGE_LOCK_NOT_OPENED "Parent\t: [sem_open] Failed\n"
#define MESSAGE_REQUEST_ENDS "fw_update from Caller Type [%d] STATE [%d] DATA [%s]"

// ---- Extension packages -----------------------------------------------------------

#define MESSAGE_NO_PACKAGE "Error: file no exist (%s)"
#define MESSAGE_PACKAGE_NOT_MOUNTED "Error: Firmware EMP Mount Fail.(%s)"
#define MESSAGE_PACKAGE_NOT_UNMOUNTED "Error: Firmware EMP UMount Fail.(%s)"
#define MESSAGE_PACKAGE_UNMOUNTED "EMP UMount Success %s"
#define MESSAGE_DOWNLOAD_REFUSED "Error: EMP ABM_DownloadAppBinary fail.(%s)"
#define MESSAGE_DOWNLOAD_REQUESTED "Request (%s) emp download"
#define MESSAGE_MOUNT_WITHOUT_PLACES "Source file or dest dir is empty."
#define MESSAGE_MOUNT_WITHOUT_IMAGE "srcFile[%s] is not exist."
#define MESSAGE_MOUNT_POINT_NOT_MADE "Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]"
#define MESSAGE_MOUNT_REQUESTED "PsMntCmd:[%s]"
#define MESSAGE_MOUNT_FAILED "Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]"
#define MESSAGE_LOOP_DEVICES "loop count is %d, mount count is %d"
#define MESSAGE_LOOP_DEVICE_NOT_MADE "PS_Mknod error, retVal: [%d], result: [%d]"
#define MESSAGE_UNMOUNT_WITHOUT_PLACE "Input umount dir is empty."
#define MESSAGE_UNMOUNT_NO_DIRECTORY "Umount dir[%s] is invalid."
#define MESSAGE_UNMOUNTED "Umount dir[%s] successfully."
#define MESSAGE_UNMOUNT_FAILED "Error(iRet1=%d, iRet2=%d) while unmounitng [%s]"
#define MESSAGE_UNMOUNT_BROKE_OFF "Failed to umount[%s], error[%s]."

// ---- USB packages -----------------------------------------------------------------

#define MESSAGE_NO_KEY "Error: ckey  is nullptr"
#define MESSAGE_NO_DIRECTORY "Error: image_path is nullptr"
#define MESSAGE_USB_PACKAGE_NOT_OPENED "Error: %s open fail"
#define MESSAGE_USB_PACKAGE_NOT_OPENED_AGAIN "Error: %s file open"
#define MESSAGE_NOT_SIGNED "Error: %s is NOT signed"
#define MESSAGE_NOT_SIGNED_ANY_MORE "Error: %s file is NOT signed"
#define MESSAGE_VERIFIER_NOT_LOADED "[zaq][%s] pHandle Error: %s\n"
#define MESSAGE_VERIFIER_WITHOUT_ENTRY "[zaq][%s] dlsym Error: %s\n"
#define MESSAGE_SIGNATURE_VALID "[zaq][%s] the file is signed successfully : %s\n"
#define MESSAGE_SIGNATURE_INVALID "[zaq][%s] the file is NOT signed!! : %s\n"
#define MESSAGE_MINIMUM_VERSION_NOT_KEPT "Error: %s minimum version is not kept"
#define MESSAGE_USB_PACKAGE_TOO_SHORT "Error: iv is worng"
#define MESSAGE_USB_PACKAGE_NOT_DECRYPTED "Error: Decryption data is null"
#define MESSAGE_EXPECTED_TIME_UNKNOWN "Error: %s getExpectedTime Fail"
#define MESSAGE_USB_PACKAGE_NEEDED "Need Update [%s] [%d]"
#define MESSAGE_USB_PACKAGE_NOT_APPLIED "update fail [%s]"
#define MESSAGE_EXTENSION_SKIPPED "En/Decryption Service EXT skip [%s]"

// ---- Runs over all modules, and lists ---------------------------------------------

#define MESSAGE_RUN_BEGINS "Try doUpdateFirmwareAll"
#define MESSAGE_EXPECTED_TIME_COUNTED "%s Firmware Expected Time Check Done"
#define MESSAGE_NOTHING_TO_UPDATE "There is no update item"
#define MESSAGE_RUN_TIME "about total update time is %d ms, Lock the power during about that time."
#define MESSAGE_POWER_HELD "device_power_lock_state done"
// The last module's turn is over.
#define MESSAGE_POWER_RELEASE "device_power_unlock_state"
#define MESSAGE_POWER_RELEASED "device_power_unlock_state done"
#define MESSAGE_ALL_DONE_BEGINS "Try allDoUpdateDone"
#define MESSAGE_ALL_DONE_ENDS "allDoUpdateDone Done"
#define MESSAGE_UPDATE_LIST_ITEM "update list is fw_name[%s] version [%s] fiename[%s]"
#define MESSAGE_PENDING "Need Update [%s][%s]"
#define MESSAGE_PENDING_LIST_NOT_SEEN "lstat error\n"
#define MESSAGE_PENDING_LIST_IS_LINK "symbolic link is detected\n"
#define MESSAGE_PENDING_LIST_REFUSED "fail check_race_condition\n"
#define MESSAGE_PENDING_LIST_STOPPED "Task is not running, writeFirmwareUpdateList stop"

// ---- Queries ----------------------------------------------------------------------

#define MESSAGE_INFORMATION_ANSWERED "fw_getFWInformation STATE [%d] DATA [%s]"
#define MESSAGE_VERSION_ANSWERED "fw_getVersion STATE [%d] DATA [%s]"
#define MESSAGE_PROGRESS_ANSWERED "fw_getUpdateProgress STATE [%d] DATA [%s] Progress [%d]"
#define MESSAGE_NO_SOFTWARE_MODEL "Error: getSwVersion fail"
#define MESSAGE_SOFTWARE_VERSION_UNKNOWN "Unable to read SW version from system-info"
#define MESSAGE_SOFTWARE_VERSION_WITHOUT_DASH "getSWVersionString: Wrong string format - lack of dash: %s"
#define MESSAGE_SOFTWARE_MODEL "SWModel : %s"

namespace fwmessages {

// What every message is logged with.
inline constexpr int kLogId = 2;
inline constexpr const char* kTag = "FWUPDATE";

// Behind the firmware's name, in the text of MESSAGE_TIMED_OUT.
inline constexpr const char* kTimedOutSuffix = " update timeout";

// The library waits for a module as long as it expects to, and this long more.
inline constexpr unsigned int kWaitMarginSeconds = 2;
// A run over all modules holds the power for the sum of the expected times, and this long
// more for each module.
inline constexpr unsigned int kPowerMarginMs = 5000;

}  // namespace fwmessages

#endif
