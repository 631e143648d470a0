// Writes files that others may be reading, in directories that others may write to.
// Plain functions, safe from any thread.
#ifndef SANDBOX_REPLACED_FILE_H
#define SANDBOX_REPLACED_FILE_H

#include <string>

#include "file-descriptor.h"

namespace sandbox {

// A reader sees the old file or the new one, never a part. A link of this name, or where
// the new file is written first, is replaced and never followed. Throws
// std::system_error.
void replaceFile(const FileDescriptor& directory, const std::string& name, const std::string& content);

}  // namespace sandbox

#endif
