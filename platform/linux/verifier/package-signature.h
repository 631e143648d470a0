// Checks the signature of a USB package. A file is read once, in constant memory,
// and what is no regular file is never waited for. Safe from any thread.
#ifndef FW_PLATFORM_PACKAGE_SIGNATURE_H
#define FW_PLATFORM_PACKAGE_SIGNATURE_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

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
  UnknownKey,
  WrongKindOfKey,
  WrongSignature,
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

// Gives the public key with this identifier, or null.
using KeySource = std::function<Key(const KeyId& keyId)>;

// Throws std::runtime_error or std::bad_alloc when OpenSSL or memory fails.
SignatureReport checkSignature(const std::string& path, const KeySource& keys);

}  // namespace fwpackage

#endif
