// SPDX-License-Identifier: Apache-2.0
#include "tree-digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "file-descriptor.h"

namespace powercut {
namespace fs = std::filesystem;
namespace {

// The file system's own, and always there.
constexpr char kLostAndFound[] = "lost+found";

class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
      throw std::runtime_error("no SHA-256");
    }
  }

  void add(const void* bytes, std::size_t length) { EVP_DigestUpdate(context_.get(), bytes, length); }

  // With its length, so that what follows does not mix with it.
  void add(const std::string& text) {
    const std::uint64_t length = text.size();
    add(&length, sizeof length);
    add(text.data(), text.size());
  }

  std::string hexadecimal() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes = {};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_.get(), bytes.data(), &length);
    std::string text;
    constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned int index = 0; index < length; ++index) {
      text += {kDigits[bytes[index] >> 4U], kDigits[bytes[index] & 15U]};
    }
    return text;
  }

 private:
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

class Look {
 public:
  explicit Look(std::string root) : root_(std::move(root)), buffer_(std::size_t{1} << 18U, char()) {}

  Tree take() {
    addDirectory("");
    tree_.digest = digest_.hexadecimal();
    return std::move(tree_);
  }

 private:
  void addDirectory(const std::string& below) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(root_ + below, error), end; !error && entry != end;
         entry.increment(error)) {
      names.push_back(entry->path().filename().string());
    }
    if (error) {
      notReadable(below, error.value());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      if (!below.empty() || name != kLostAndFound) {
        std::string path = below;
        addEntry(path.append("/").append(name));
      }
    }
  }

  void addEntry(const std::string& path) {
    digest_.add(path);
    struct stat status = {};
    if (lstat((root_ + path).c_str(), &status) != 0) {
      notReadable(path, errno);
      return;
    }
    digest_.add(&status.st_mode, sizeof status.st_mode);
    if (S_ISDIR(status.st_mode)) {
      addDirectory(path);
    } else if (S_ISREG(status.st_mode)) {
      digest_.add(&status.st_size, sizeof status.st_size);
      addContent(path);
    }
  }

  void addContent(const std::string& path) {
    const base::FileDescriptor file(open((root_ + path).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) {
      notReadable(path, errno);
      return;
    }
    for (;;) {
      const ssize_t count = read(file.get(), buffer_.data(), buffer_.size());
      if (count <= 0) {
        if (count < 0) {
          notReadable(path, errno);
        }
        return;
      }
      digest_.add(buffer_.data(), static_cast<std::size_t>(count));
    }
  }

  void notReadable(const std::string& path, int error) {
    tree_.unreadable.push_back(path + ": " + std::strerror(error));
    digest_.add(tree_.unreadable.back());
  }

  const std::string root_;
  std::string buffer_;
  Digest digest_;
  Tree tree_;
};

}  // namespace

Tree lookAtTree(const std::string& directory) {
  return Look(directory).take();
}

}  // namespace powercut
