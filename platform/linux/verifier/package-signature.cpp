// SPDX-License-Identifier: Apache-2.0
#include "package-signature.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "file-descriptor.h"
#include "public-keys.h"
#include "version-order.h"

namespace fwpackage {
namespace {

constexpr std::size_t kReadSize = 65536;

constexpr VerdictInfo kVerdicts[] = {
    {Verdict::Valid, "valid", "the signature is valid"},
    {Verdict::Unreadable, "unreadable", "the file cannot be read"},
    {Verdict::NoFile, "no-file", "this is no regular file"},
    {Verdict::TooShort, "too-short", "the file is too short to be a signed package"},
    {Verdict::NoTrailer, "no-trailer", "the file does not end with a signature trailer"},
    {Verdict::UnknownFormat, "unknown-format", "the trailer has an unknown format version"},
    {Verdict::UnknownAlgorithm, "unknown-algorithm", "the trailer names an unknown algorithm"},
    {Verdict::MalformedTrailer, "malformed-trailer", "the trailer is damaged"},
    {Verdict::UnusableList, "unusable-list", "a list of keys beside the public keys cannot be used"},
    {Verdict::RevokedKey, "revoked-key", "the package's key is revoked"},
    {Verdict::OldFormat, "old-format",
     "the signature has format 1, which names no component, and the key may not sign that any more"},
    {Verdict::UnknownKey, "unknown-key", "no public key with the package's key identifier is known"},
    {Verdict::WrongKindOfKey, "wrong-kind-of-key", "the public key is not of the trailer's algorithm"},
    {Verdict::WrongSignature, "wrong-signature", "the signature does not match the content"},
    {Verdict::OtherKind, "other-kind", "the signature is for another kind of package"},
    {Verdict::OtherName, "other-name", "the package is for another component"},
    {Verdict::OtherModel, "other-model", "the package is for another model"},
    {Verdict::UnusableMinimum, "unusable-minimum", "the set's minimum version cannot be read"},
    {Verdict::TooOld, "too-old", "the package is older than the set's minimum version"},
};

constexpr struct {
  Trailer::State state;
  Verdict verdict;
} kTrailerVerdicts[] = {
    {Trailer::State::Missing, Verdict::NoTrailer},
    {Trailer::State::UnknownFormat, Verdict::UnknownFormat},
    {Trailer::State::UnknownAlgorithm, Verdict::UnknownAlgorithm},
    {Trailer::State::Malformed, Verdict::MalformedTrailer},
};

void require(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(what);
  }
}

// Reads at offset until size bytes are there; false at an error or the file's end.
bool readFully(int file, unsigned char* buffer, std::size_t size, std::int64_t offset) {
  while (size > 0) {
    const ssize_t got = ::pread(file, buffer, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    buffer += got;
    size -= static_cast<std::size_t>(got);
    offset += got;
  }
  return true;
}

bool matches(const Trailer& trailer, const std::vector<unsigned char>& digest, EVP_PKEY* key) {
  const Algorithm& algorithm = *trailer.algorithm;
  return algorithm.way->verify(key, {algorithm.digest, digest}, trailer.signature(), algorithm.signatureSize);
}

// Each list decides only when it can be used.
std::optional<Verdict> judgeList(Listed listed, Listed refused, Verdict verdict) {
  if (listed == Listed::Unusable) {
    return Verdict::UnusableList;
  }
  return listed == refused ? std::optional<Verdict>(verdict) : std::nullopt;
}

// False when the content cannot be read.
bool addContent(int file, std::int64_t size, PackageCheck& check) {
  std::vector<unsigned char> buffer(kReadSize);
  for (std::int64_t offset = 0; offset < size;) {
    const auto part =
        static_cast<std::size_t>(std::min<std::int64_t>(size - offset, static_cast<std::int64_t>(kReadSize)));
    if (!readFully(file, buffer.data(), part, offset)) {
      return false;
    }
    check.add(buffer.data(), part);
    offset += static_cast<std::int64_t>(part);
  }
  return true;
}

SignatureReport withVerdict(SignatureReport report, Verdict verdict) {
  report.verdict = verdict;
  return report;
}

}  // namespace

PackageDigest::PackageDigest(const Algorithm& algorithm) : context_(EVP_MD_CTX_new()) {
  require(context_ && EVP_DigestInit_ex(context_.get(), EVP_get_digestbyname(algorithm.digest), nullptr) == 1,
          "the digest cannot be started");
}

void PackageDigest::add(const unsigned char* bytes, std::size_t size) {
  require(EVP_DigestUpdate(context_.get(), bytes, size) == 1, "the digest failed");
}

std::vector<unsigned char> PackageDigest::finish() {
  std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  require(EVP_DigestFinal_ex(context_.get(), digest.data(), &size) == 1, "the digest failed");
  digest.resize(size);
  return digest;
}

const VerdictInfo& infoOf(Verdict verdict) {
  for (const VerdictInfo& info : kVerdicts) {
    if (info.verdict == verdict) {
      return info;
    }
  }
  throw std::logic_error("a verdict without a name");
}

Trust trustIn(const std::string& directory) {
  return {[directory](const KeyId& id) { return findPublicKey(directory, id); },
          [directory](const KeyId& id) { return findInList(directory + "/" + kRevokedList, id); },
          [directory](const KeyId& id) { return findInList(directory + "/" + kOldFormatList, id); },
          [](const std::string&) { return MinimumVersion(); }};
}

PackageCheck::PackageCheck(const Trust& trust, Expectation expected)
    : trust_(trust), expected_(std::move(expected)) {}

bool PackageCheck::begin(const TrailerBytes& trailer) {
  report_.trailer = parseTrailer(trailer);
  report_.verdict = judgeTrailer();
  if (report_.verdict != Verdict::Valid) {
    return false;
  }
  digest_.emplace(*report_.trailer.algorithm);
  return true;
}

void PackageCheck::add(const unsigned char* content, std::size_t size) {
  if (digest_) {
    digest_->add(content, size);
  }
}

SignatureReport PackageCheck::finish() {
  if (!digest_) {
    return report_;
  }
  const Trailer& trailer = report_.trailer;
  digest_->add(trailer.bytes.data(), trailer.signedSize());
  report_.verdict =
      matches(trailer, digest_->finish(), key_.get()) ? judgeStatements() : Verdict::WrongSignature;
  digest_.reset();
  return report_;
}

Verdict PackageCheck::judgeTrailer() {
  const Trailer& trailer = report_.trailer;
  for (const auto& row : kTrailerVerdicts) {
    if (row.state == trailer.state) {
      return row.verdict;
    }
  }
  return judgeKey();
}

Verdict PackageCheck::judgeKey() {
  const Trailer& trailer = report_.trailer;
  if (const auto refused = judgeList(trust_.isRevoked(trailer.keyId), Listed::Yes, Verdict::RevokedKey)) {
    return *refused;
  }
  if (trailer.format == kOldFormat) {
    if (const auto refused =
            judgeList(trust_.maySignOldFormat(trailer.keyId), Listed::No, Verdict::OldFormat)) {
      return *refused;
    }
  }
  key_ = trust_.findKey(trailer.keyId);
  if (!key_) {
    return Verdict::UnknownKey;
  }
  return algorithmOf(key_.get()) == trailer.algorithm ? Verdict::Valid : Verdict::WrongKindOfKey;
}

// Only after the signature: before, anybody may have stated them.
Verdict PackageCheck::judgeStatements() const {
  if (report_.trailer.format == kOldFormat) {
    return expected_.kind == Kind::UsbPackage ? judgeMinimum() : Verdict::OtherKind;
  }
  const Statements& stated = report_.trailer.statements;
  if (stated.kind != expected_.kind) {
    return Verdict::OtherKind;
  }
  if (expected_.name && stated.name != *expected_.name) {
    return Verdict::OtherName;
  }
  const bool fits = expected_.anyModel || stated.model.empty() || stated.model == expected_.model;
  return fits ? judgeMinimum() : Verdict::OtherModel;
}

// A package of the old format states no version: a minimum refuses it.
Verdict PackageCheck::judgeMinimum() const {
  const Statements& stated = report_.trailer.statements;
  const bool old = report_.trailer.format == kOldFormat;
  if (expected_.rollbackAllowed) {
    return Verdict::Valid;
  }
  const MinimumVersion minimum = trust_.minimumVersion(old ? expected_.name.value_or("") : stated.name);
  if (minimum.state == MinimumVersion::State::None) {
    return Verdict::Valid;
  }
  if (minimum.state == MinimumVersion::State::Unusable) {
    return Verdict::UnusableMinimum;
  }
  return old || isOlder(stated.version, minimum.version) ? Verdict::TooOld : Verdict::Valid;
}

Verdict readTrailer(int file, TrailerBytes& trailer, std::int64_t& content) {
  struct stat status = {};
  if (::fstat(file, &status) != 0) {
    return Verdict::Unreadable;
  }
  if (!S_ISREG(status.st_mode)) {
    return Verdict::NoFile;
  }
  content = status.st_size - static_cast<std::int64_t>(kTrailerSize);
  if (content <= 0) {
    return Verdict::TooShort;
  }
  return readFully(file, trailer.data(), trailer.size(), content) ? Verdict::Valid : Verdict::Unreadable;
}

SignatureReport checkSignature(int file, const Trust& trust, const Expectation& expected) {
  SignatureReport report;
  // The trailer first: most of what is no package is refused without reading it.
  TrailerBytes bytes;
  std::int64_t content = 0;
  if (const Verdict verdict = readTrailer(file, bytes, content); verdict != Verdict::Valid) {
    return withVerdict(report, verdict);
  }
  PackageCheck check(trust, expected);
  const bool readable = !check.begin(bytes) || addContent(file, content, check);
  report = check.finish();
  return readable ? report : withVerdict(report, Verdict::Unreadable);
}

SignatureReport checkSignature(const std::string& path, const Trust& trust, const Expectation& expected) {
  const base::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return file ? checkSignature(file.get(), trust, expected) : SignatureReport();
}

std::string nameFromPath(const std::string& path) {
  return std::filesystem::path(path).stem().string();
}

}  // namespace fwpackage
