/* SPDX-License-Identifier: Apache-2.0 */
/* What an update module exports. Include this in the module's source, define the
 * functions, and build a shared library that is installed as
 * "/prd/usr/fwupdate/controls/<name>.so". Plain C and C++ both compile it.
 *
 * The library may call getActiveVersion, getUpdateProgress and getExpectedTime
 * while doUpdate runs on another thread. Texts are written into buffers of 128
 * bytes and end with a NUL. */
#ifndef FW_UPDATE_MODULE_H
#define FW_UPDATE_MODULE_H

#ifdef __cplusplus
#include "fw-update-types.h"
#define FW_UPDATE_CALLER_TYPE enum CallerTypes
extern "C" {
#else
/* CallerTypes of fw-update-types.h: 0 factory, 1 debug, 2 query, 3 USB package,
 * 4 upgrade application, 5 LSM, 6 reserved, 7 epsolution. */
#define FW_UPDATE_CALLER_TYPE int
#endif

#define FW_UPDATE_MODULE_EXPORT __attribute__((visibility("default")))

/* Required. */

/* Who asks, and with what request data, before a version query or an update.
 * libName is the module's library name. Both texts are the caller's: copy what is
 * needed later. 0 on success; anything else makes an update fail. */
FW_UPDATE_MODULE_EXPORT int setContext(const char* libName, FW_UPDATE_CALLER_TYPE caller, char* data);

/* Writes the package identifier: ASCII letters and digits, containing "emp", at
 * most 127 characters. Without its first "emp" it is the firmware name. The
 * result is ignored. Not called for modules whose name contains "EXT-". */
FW_UPDATE_MODULE_EXPORT int getEMPID(char* out);

/* Writes the version of the active firmware. 0 on success. */
FW_UPDATE_MODULE_EXPORT int getActiveVersion(char* out);

/* Compares version with the active firmware and sets *need to 1 when an update is
 * needed, else to 0. Of other numbers a request for one module starts no update,
 * while a run over all modules and a USB package take positive ones for 1. 0 when
 * the comparison itself succeeded. */
FW_UPDATE_MODULE_EXPORT int checkVersion(const char* version, int* need);

/* Writes the image at path; value is its CRC-32. An EXT- module gets its own
 * library name and 0 instead and runs its own procedure. 0 on success; the old
 * firmware stays active otherwise. */
FW_UPDATE_MODULE_EXPORT int doUpdate(const char* path, unsigned long value);

/* Optional. */

/* A run over all modules is over. */
FW_UPDATE_MODULE_EXPORT int allUpdateDone(void);

/* Writes the decrypted image of a USB package. 0 on success. */
FW_UPDATE_MODULE_EXPORT int doUpdate_decryption(const unsigned char* data, int length);

/* Expected duration of the module's update in seconds. 0 on success. */
FW_UPDATE_MODULE_EXPORT int getExpectedTime(int* seconds);

/* Progress of a running update, 0 to 100. 0 on success. */
FW_UPDATE_MODULE_EXPORT int getUpdateProgress(unsigned int* progress);

#ifdef __cplusplus
}
#endif

#endif
