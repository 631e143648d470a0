// SPDX-License-Identifier: Apache-2.0
// Secrets come from files, never from the command line. What was read is wiped
// when its owner goes; one owner, one thread.
#ifndef FW_TOOLS_SECRET_FILE_H
#define FW_TOOLS_SECRET_FILE_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace secret {

inline constexpr std::size_t kPackageKeySize = 32;  // AES-256

class Error : public std::runtime_error {
  using runtime_error::runtime_error;
};

class Secret {
 public:
  explicit Secret(std::size_t size) : bytes_(size) {}
  Secret(Secret&&) noexcept = default;
  Secret& operator=(Secret&&) = delete;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret();

  unsigned char* data() { return bytes_.data(); }
  const unsigned char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

  // Not empty when others than the owner may read or change the file: a sentence.
  std::string warning;

 private:
  std::vector<unsigned char> bytes_;
};

// The whole regular file. Throws Error.
Secret readSecretFile(const std::string& path);

// The key that packages are encrypted with: exactly 32 raw bytes. Throws Error.
Secret readPackageKey(const std::string& path);

}  // namespace secret

#endif
