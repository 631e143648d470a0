// Reads and replaces small files by name in an open directory, never through a
// symbolic link. Any thread.
#ifndef PLATFORM_LINUX_SMALL_FILE_H
#define PLATFORM_LINUX_SMALL_FILE_H

#include <cstddef>
#include <string>

namespace fwplatform {

// Each gives 0 or an errno value.

// EFBIG when the file is larger than limit, EINVAL when it is no regular file.
int readSmallFileAt(int directory, const std::string& name, std::size_t limit, std::string& content);

// A reader sees the old content or the new one, never a part. sync: also after a
// power cut.
int replaceSmallFileAt(int directory, const std::string& name, const std::string& content, bool sync);

}  // namespace fwplatform

#endif
