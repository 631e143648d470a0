// SPDX-License-Identifier: Apache-2.0
// Checks whether a package is signed, and whether it is the package that is wanted.
// A file is read once, in constant memory, and what is no regular file is never waited
// for. Safe from any thread.
#ifndef FW_PLATFORM_PACKAGE_SIGNATURE_H
#define FW_PLATFORM_PACKAGE_SIGNATURE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "key-lists.h"
#include "minimum-versions.h"
#include "openssl-handles.h"
#include "package-trailer.h"

namespace fwpackage {

// The digest that an algorithm signs. Throws std::runtime_error.
class PackageDigest {
 public:
  explicit PackageDigest(const Algorithm& algorithm);
  void add(const unsigned char* bytes, std::size_t size);
  std::vector<unsigned char> finish();

 private:
  DigestContext context_;
};

enum class Verdict {
  Valid,
  Unreadable,
  NoFile,
  TooShort,
  NoTrailer,
  UnknownFormat,
  UnknownAlgorithm,
  MalformedTrailer,
  UnusableList,
  RevokedKey,
  OldFormat,
  UnknownKey,
  WrongKindOfKey,
  WrongSignature,
  OtherKind,
  OtherName,
  OtherModel,
  UnusableMinimum,
  TooOld,
};

struct VerdictInfo {
  Verdict verdict;
  const char* id;        // for programs
  const char* sentence;  // for people
};

const VerdictInfo& infoOf(Verdict verdict);

struct SignatureReport {
  Verdict verdict = Verdict::Unreadable;
  Trailer trailer;  // as far as it was read
};

// What signatures are held against.
struct Trust {
  std::function<Key(const KeyId& keyId)> findKey;  // null when there is none
  std::function<Listed(const KeyId& keyId)> isRevoked;
  std::function<Listed(const KeyId& keyId)> maySignOldFormat;
  std::function<MinimumVersion(const std::string& name)> minimumVersion;
};

// The keys and lists of a directory, without minimum versions. Each use reads them anew.
Trust trustIn(const std::string& directory);

// The package that is wanted. A package of the old format states none of it, so that
// only its key decides.
struct Expectation {
  Kind kind = Kind::UsbPackage;
  std::optional<std::string> name;   // when absent, every name will do
  std::optional<std::string> model;  // the set's; when absent, only a package for any set will do
  bool anyModel = false;             // then every package will do
  bool rollbackAllowed = false;      // then no minimum version is looked at
};

// Judges a package whose bytes come from outside: first its trailer, then, when that
// is worth it, its content, from the first byte on. The trust outlives it. Throws
// std::runtime_error or std::bad_alloc when OpenSSL or memory fails.
class PackageCheck {
 public:
  PackageCheck(const Trust& trust, Expectation expected);

  // False when the trailer alone is reason to refuse.
  bool begin(const TrailerBytes& trailer);
  void add(const unsigned char* content, std::size_t size);
  // To be asked once.
  SignatureReport finish();

 private:
  Verdict judgeTrailer();
  Verdict judgeKey();
  Verdict judgeStatements() const;
  Verdict judgeMinimum() const;

  const Trust& trust_;
  const Expectation expected_;
  SignatureReport report_;
  Key key_;
  std::optional<PackageDigest> digest_;
};

// The last bytes of a file, and how many stand before them. Valid when there are both;
// what they say is not looked at. file: a descriptor; where it stands is neither used nor
// changed.
Verdict readTrailer(int file, TrailerBytes& trailer, std::int64_t& content);

// file: as above. Both throw as the check does.
SignatureReport checkSignature(int file, const Trust& trust, const Expectation& expected);
SignatureReport checkSignature(const std::string& path, const Trust& trust, const Expectation& expected);

// The name that a package in this file has to have: that of the file, without ".bin".
std::string nameFromPath(const std::string& path);

}  // namespace fwpackage

#endif
