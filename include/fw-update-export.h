// SPDX-License-Identifier: Apache-2.0
// Marks what libfw-update-control.so exports. The library is built with hidden
// visibility, and src/exports.map states the same list once more by name.
#ifndef FW_UPDATE_EXPORT_H
#define FW_UPDATE_EXPORT_H

#define FW_UPDATE_EXPORT __attribute__((visibility("default")))

#endif
