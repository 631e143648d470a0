// SPDX-License-Identifier: Apache-2.0
// Where artifacts lie until they are handed over: each under its SHA-256, so that a file of the same
// name that another action brings is another file. What is not whole yet is SHA256.part, with the server's
// mark in SHA256.mark; only its hash decides in the end whether it is what was wanted. One process, one
// thread.
#ifndef FW_FLEET_ARTIFACT_STORE_H
#define FW_FLEET_ARTIFACT_STORE_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#include "file-descriptor.h"
#include "openssl-handles.h"

namespace fleet {

enum class StoreTrouble {
  NoSpace,
  Wrong,       // not what was announced: too long, too short or of another hash
  Incomplete,  // it goes on where it stopped
  Disk,
};

// what() is a sentence.
class StoreFailure : public std::runtime_error {
 public:
  StoreFailure(StoreTrouble trouble, const std::string& sentence)
      : std::runtime_error(sentence), trouble_(trouble) {}
  StoreTrouble trouble() const { return trouble_; }

 private:
  StoreTrouble trouble_;
};

// What stays free for the rest of the set, of a file system with so many bytes.
std::int64_t reserveOf(std::int64_t all);

// Every operation throws StoreFailure.
class ArtifactStore {
 public:
  // Makes the directory, for this user alone.
  explicit ArtifactStore(const std::string& directory = "/var/lib/fw-fleet/store");

  // Whether it lies there, whole: it is read once more.
  bool has(const std::string& sha256, std::int64_t size) const;
  // For the whole of an action, before its first byte. needed: what is not there yet.
  void requireSpace(std::int64_t needed) const;
  void remove(const std::string& sha256) const;
  // All but these; also what is not whole.
  void removeOthers(const std::set<std::string>& needed) const;
  // How much of it lies there already, whole or not. Not looked into.
  std::int64_t received(const std::string& sha256) const;

  int directory() const { return directory_.get(); }

 private:
  base::FileDescriptor directory_;
};

// One that is being received.
class PartialArtifact {
 public:
  // Takes up what is there. sha256: 64 digits.
  PartialArtifact(const ArtifactStore& store, const std::string& sha256, std::int64_t size);

  // Where the next byte goes.
  std::int64_t received() const { return received_; }
  std::int64_t missing() const { return size_ - received_; }
  void append(const char* bytes, std::size_t count);
  // The server sends it from its first byte.
  void restart();
  // What the server marks the artifact with, so that the rest is asked for by it, also after a restart.
  // One that cannot be kept is none: the hash decides.
  void mark(const std::string& mark);
  const std::string& marked() const { return mark_; }
  // It has its own name from then on, on the disk. When it is not what was wanted nothing is left of it.
  void finish();

 private:
  void open();
  void takeUp();
  [[noreturn]] void discard(const std::string& sentence);
  [[noreturn]] void fail(const char* what, int error) const;

  const ArtifactStore& store_;
  const std::string name_;
  const std::string part_;
  const std::int64_t size_;
  std::int64_t received_ = 0;
  std::string mark_;
  base::FileDescriptor file_;
  fwpackage::DigestContext digest_;
};

}  // namespace fleet

#endif
