// SPDX-License-Identifier: Apache-2.0
// A done event is an empty file in a directory of the platform. Waiters watch the
// directory and leave no trace of their own, so that one that dies disturbs nobody.
#include "lwipc.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

#include "deadline.h"
#include "file-descriptor.h"

namespace {

using base::FileDescriptor;

constexpr char kParent[] = "/run";
constexpr char kEvents[] = "/run/fw-lwipc";

// The file's name: "/" and "%" as %XX, so that different events stay different.
// Every event begins with "/", so that "." and ".." cannot come about.
int fileName(const char* event, std::string& name) {
  if (event == nullptr || *event != '/') {
    return -EINVAL;
  }
  for (const char* at = event; *at != '\0'; ++at) {
    if (*at == '/') {
      name += "%2F";
    } else if (*at == '%') {
      name += "%25";
    } else {
      name += *at;
    }
    if (name.size() > NAME_MAX) {
      return -ENAMETOOLONG;
    }
  }
  return 0;
}

// Only what root or this user made, and what nobody else can change, is trusted.
bool isTrusted(const struct stat& status) {
  return (status.st_uid == 0 || status.st_uid == geteuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

int openEvents(FileDescriptor& directory) {
  directory.reset(open(kEvents, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) {
    return -errno;
  }
  struct stat status = {};
  if (fstat(directory.get(), &status) != 0) {
    return -errno;
  }
  return isTrusted(status) ? 0 : -EPERM;
}

int makeEvents(FileDescriptor& directory) {
  const bool made = mkdir(kEvents, 0755) == 0;
  if (!made && errno != EEXIST) {
    return -errno;
  }
  const int status = openEvents(directory);
  if (status == 0 && made) {
    fchmod(directory.get(), 0755);  // whatever the umask: everybody may wait
  }
  return status;
}

int mark(const std::string& name) {
  FileDescriptor directory;
  if (const int status = makeEvents(directory); status != 0) {
    return status;
  }
  const FileDescriptor file(openat(directory.get(), name.c_str(),
                                   O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                   0644));
  if (!file) {
    return -errno;
  }
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    return -errno;
  }
  return S_ISREG(status.st_mode) ? 0 : -EINVAL;
}

// 0 done, -ENOENT not yet, or another reason.
int ask(const std::string& name) {
  FileDescriptor directory;
  if (const int status = openEvents(directory); status != 0) {
    return status;
  }
  struct stat status = {};
  if (fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return -errno;
  }
  return S_ISREG(status.st_mode) ? 0 : -EINVAL;
}

int addWatch(const FileDescriptor& watch, const char* directory) {
  constexpr unsigned int kChanges =
      IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
  return inotify_add_watch(watch.get(), directory, kChanges) < 0 ? -errno : 0;
}

// The watch comes before the question, so that no event falls between the two.
int watchAndAsk(FileDescriptor& watch, const std::string& name) {
  watch.reset(inotify_init1(IN_CLOEXEC));
  if (!watch) {
    return -errno;
  }
  int status = addWatch(watch, kEvents);
  if (status == -ENOENT) {
    // Nothing was ever signalled: the directory itself is what to wait for.
    status = addWatch(watch, kParent);
  }
  return status != 0 ? status : ask(name);
}

int waitFor(const std::string& name, const base::Deadline& deadline) {
  FileDescriptor watch;
  for (;;) {
    const int status = watchAndAsk(watch, name);
    if (status != -ENOENT) {
      return status;
    }
    const int ready = deadline.waitToRead(watch.get());
    if (ready <= 0) {
      return ready == 0 ? -ETIMEDOUT : -errno;
    }
  }
}

}  // namespace

int LwipcEventDone(const char* event) {
  try {
    std::string name;
    const int status = fileName(event, name);
    return status != 0 ? status : mark(name);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

int LwipcEventWait(const char* event, int timeout_ms) {
  try {
    const base::Deadline deadline(timeout_ms);
    std::string name;
    const int status = fileName(event, name);
    return status != 0 ? status : waitFor(name, deadline);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}
