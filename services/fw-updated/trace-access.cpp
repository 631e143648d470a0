// SPDX-License-Identifier: Apache-2.0
#include "trace-access.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file-descriptor.h"
#include "permissions.h"

namespace updated {
namespace {

constexpr mode_t kOfRootAlone = 0755;
// Nobody removes the traces of others.
constexpr mode_t kOfMembersToo = S_ISVTX | 0775;

}  // namespace

void letMembersTrace(const std::string& directory) {
  const group* const members = getgrnam(kGroup);
  if (members == nullptr || geteuid() != 0) {
    return;
  }
  mkdir(directory.c_str(), kOfRootAlone);
  const base::FileDescriptor file(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || status.st_uid != 0 || status.st_gid != 0 ||
      (status.st_mode & ALLPERMS) != kOfRootAlone) {
    return;
  }
  if (fchown(file.get(), status.st_uid, members->gr_gid) == 0) {
    fchmod(file.get(), kOfMembersToo);
  }
}

}  // namespace updated
