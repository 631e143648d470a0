// SPDX-License-Identifier: Apache-2.0
// Reads, writes and replaces files as a whole. Each gives 0 or an errno value, and goes on
// where a signal broke in. Any thread.
#ifndef FW_BASE_WHOLE_FILE_H
#define FW_BASE_WHOLE_FILE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

// All that the descriptor still gives. EFBIG when that is more than limit.
int readToEnd(int file, std::size_t limit, std::string& content);

// A regular file: EINVAL for what is none. Nothing is waited for, a FIFO's other end too.
int readFile(const std::string& path, std::size_t limit, std::string& content);
// The same by its name in an open directory, never through a symbolic link.
int readFileAt(int directory, const std::string& name, std::size_t limit, std::string& content);

int writeAll(int file, std::string_view bytes);

// A reader sees the old content or the new one, never a part. A symbolic link of this name
// is replaced and not followed. sync: also after a power cut.
int replaceFileAt(int directory, const std::string& name, const std::string& content, bool sync);

// Puts the names in the directory on the disk.
int syncDirectory(int directory);

}  // namespace base

#endif
