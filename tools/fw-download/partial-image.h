// SPDX-License-Identifier: Apache-2.0
// An image that is being received: NAME.img.part beside the place where the image
// will be, and NAME.img.part.info, which says of which file on the server it is a
// part. The image gets its own name when it is whole and on the disk. Never follows
// a symbolic link. Owned by one download, under the package's lock.
#ifndef FW_DOWNLOAD_PARTIAL_IMAGE_H
#define FW_DOWNLOAD_PARTIAL_IMAGE_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "file-descriptor.h"
#include "part-note.h"

namespace fwdownload {

inline constexpr char kPackagesDirectory[] = "/opt/usr/apps/appbinarymanager";

// Every operation throws Failure.
class PartialImage {
 public:
  // Takes what an earlier download of the same url left, if that can be continued.
  PartialImage(const std::string& package, const std::string& url);

  std::int64_t size() const { return size_; }
  const Origin& origin() const { return origin_; }

  // Throws away what is there and begins the file that origin tells of.
  void begin(const Origin& origin);
  void append(const char* bytes, std::size_t count);
  // Throws away everything.
  void discard();
  // Puts everything on the disk and gives what can be read there: a descriptor, of this
  // object. From now on the file must stay as it is.
  int finish();
  // Gives what was finished, and nothing else, the image's name.
  void publish();

  // Bytes that may be written to this file system.
  std::int64_t freeSpace() const;

 private:
  void open();
  void takeUp(const std::string& url);
  void truncate(std::int64_t size);
  void sync();
  void writeNote();
  void remove(const std::string& name);
  bool isStillFinished(const std::string& name) const;

  std::string image_;  // names in the directory
  std::string part_;
  std::string info_;
  base::FileDescriptor directory_;
  base::FileDescriptor file_;
  Origin origin_;
  std::int64_t size_ = 0;
  std::int64_t synced_ = 0;    // what a power cut leaves
  struct stat finished_ = {};  // how the file was then
};

}  // namespace fwdownload

#endif
