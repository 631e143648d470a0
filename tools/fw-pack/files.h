// SPDX-License-Identifier: Apache-2.0
// Files that fw-pack reads and writes. An output appears whole or not at all: it is
// written beside its place and renamed. One thread; errors are thrown as Failure.
#ifndef FW_PACK_FILES_H
#define FW_PACK_FILES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "file-descriptor.h"
#include "image-information.h"

namespace fwpack {

using Block = std::function<void(const unsigned char* bytes, std::size_t size)>;

class InputFile {
 public:
  // Regular files only.
  explicit InputFile(const std::string& path);

  const std::string& path() const { return path_; }
  std::uint64_t size() const { return size_; }
  // Bytes offset to offset + size, in blocks. A file that has become shorter fails.
  void read(std::uint64_t offset, std::uint64_t size, const Block& block) const;
  void readAll(const Block& block) const { read(0, size_, block); }
  // A small part as a whole; cut at the file's end.
  std::string text(std::uint64_t offset, std::size_t size) const;

 private:
  std::string path_;
  base::FileDescriptor file_;
  std::uint64_t size_ = 0;
};

enum class Existing { Replace, Keep };

class OutputFile {
 public:
  // What stands at path must be a regular file, or nothing. mode as for chmod.
  OutputFile(std::string path, mode_t mode, Existing existing = Existing::Replace);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // Where the content is until commit.
  const std::string& unfinished() const { return unfinished_; }
  void write(const unsigned char* bytes, std::size_t size);
  void write(const std::string& text);
  // Behind what is there by now, whoever wrote it.
  void append(const unsigned char* bytes, std::size_t size);
  // Content and name are on the disk afterwards.
  void commit();

 private:
  std::string path_;
  std::string unfinished_;
  mode_t mode_;
  Existing existing_;
  base::FileDescriptor file_;
};

inline constexpr mode_t kPublicMode = 0644;
inline constexpr mode_t kSecretMode = 0600;

// An extension package is one; a USB package begins with random bytes.
bool isSquashfs(const InputFile& file);

// As "info.json" states it.
std::uint32_t imageCrc(const InputFile& image);

// The image's checksum with what the caller states. An empty image fails.
image::Information describe(const InputFile& image, const std::string& version, std::uint32_t expectedTime,
                            const std::string& updateClass = {});

void copyFile(const InputFile& from, const std::string& to);

// With its parents, as far as they are missing; on the disk afterwards.
void makeDirectories(const std::filesystem::path& path);

}  // namespace fwpack

#endif
