// Reads the small files of the keys' directory. Safe from any thread.
#ifndef FW_PLATFORM_KEY_FILE_H
#define FW_PLATFORM_KEY_FILE_H

#include <string>

namespace fwpackage {

// 0 or an errno value: EINVAL for what is no regular file, EFBIG for what is larger
// than a key or list is. Never waits for the other end of a FIFO.
int readKeyFile(const std::string& path, std::string& content);

}  // namespace fwpackage

#endif
