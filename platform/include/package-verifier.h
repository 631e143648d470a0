/* SPDX-License-Identifier: Apache-2.0 */
/* The entry points of the verification library, /usr/lib/libkZAQUser.so, which is loaded
   at run time. verifyFile is needed; the others are optional: a library without them is
   asked nothing more than verifyFile. All are looked up by name and are called from any
   thread; none throws, ends the process or changes its state (OpenSSL's errors
   included). Plain C compiles this header. */
#ifndef PLATFORM_PACKAGE_VERIFIER_H
#define PLATFORM_PACKAGE_VERIFIER_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when the file may be used, 0 when it must be refused. reserved is 0, caller
   "UserCaller". */
int verifyFile(int reserved, const char* filePath, const char* caller);

/* ---- Content check ------------------------------------------------------------------
   verifyFile looks at the file on the drive; what counts is what was read into memory
   afterwards. So the bytes that were read are given to the verifier once more, in file
   order, and their signature is judged, not the file's. All four, or none, must be there.
   A check belongs to who began it, and is used by one thread at a time. */
typedef struct PackageContentCheck PackageContentCheck; /* NOLINT(modernize-use-using): C */

/* Begins to check the package that descriptor is open for; filePath is the path that it
   was opened by, as verifyFile got it. The descriptor stays its owner's, and so does its
   offset: only pread is allowed. Null when it cannot be checked; then it is refused. */
PackageContentCheck* beginContentCheck(const char* filePath, int descriptor);

/* The next size bytes of the file as they were read, its trailer included. Takes no
   memory beyond a fixed amount, whatever the package's size. */
void addCheckedContent(PackageContentCheck* check, const unsigned char* bytes, size_t size);

/* The verdict, once: non-zero when all that was added is a package that verifyFile would
   take under this path. */
int endContentCheck(PackageContentCheck* check);

/* Frees it, at any time after its beginning. */
void releaseContentCheck(PackageContentCheck* check);

/* ---- Minimum versions ---------------------------------------------------------------
   Called after the module took the package of a check that ended well and reported
   success: from now on what the signature says about older packages holds. 0 on success,
   else a negative errno value: then it could not be noted. */
int noteAppliedPackage(const PackageContentCheck* check);

/* While allow is not 0, packages older than the minimum version pass in this process. For
   an operator's explicit request only. */
void allowPackageRollback(int allow);

#ifdef __cplusplus
}
#endif

#endif
