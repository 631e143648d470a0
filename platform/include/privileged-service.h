// SPDX-License-Identifier: Apache-2.0
// Privileged operations that an unprivileged process asks a service for. Each
// returns a status (0: the request was carried out) and stores the operation's
// own result in *result (0: it succeeded, else an errno value).
#ifndef PLATFORM_PRIVILEGED_SERVICE_H
#define PLATFORM_PRIVILEGED_SERVICE_H

// arguments: "-o OPTIONS SOURCE DIRECTORY", NUL-terminated within capacity bytes.
extern "C" __attribute__((visibility("default"))) int PS_Mount(const char* arguments, int capacity,
                                                               int reserved, int* result);
// arguments: "-m 0660 -Z * /dev/loopN  b 7 N", NUL-terminated within capacity bytes.
extern "C" __attribute__((visibility("default"))) int PS_Mknod(const char* arguments, int capacity,
                                                               int reserved, int* result);
// length: characters of directory, without a terminator.
extern "C" __attribute__((visibility("default"))) int PS_Umount(const char* directory, int length,
                                                                int reserved, int* result);

#endif
