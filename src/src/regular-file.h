// SPDX-License-Identifier: Apache-2.0
// Opens files that anybody may have put there. Nothing but a regular file is opened:
// neither a FIFO, which nobody may ever write to, nor a device, which may have no end.
// Nothing here keeps state; safe from any thread.
#ifndef REGULAR_FILE_H
#define REGULAR_FILE_H

#include <sys/types.h>

#include <string>

#include "file-handles.h"

struct RegularFile {
  FileDescriptor descriptor;
  off_t size;  // bytes, when it was opened
};

// For reading; links are followed. Not open for what is no regular file, or may not
// be read. Never waits for anybody.
RegularFile openRegularFile(const std::string& path);

// A whole file of at most limit bytes. False for a longer one, one that grows while it
// is read, and what cannot be opened or read.
bool readRegularFile(const std::string& path, std::size_t limit, std::string& content);

// Also true of one that may not be read.
bool isRegularFile(const std::string& path);

#endif
