#include "package-signature.h"

#include <fcntl.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "public-keys.h"
#include "unique-fd.h"

namespace fwpackage {
namespace {

constexpr std::size_t readSize = 65536;

constexpr VerdictInfo verdicts[] = {
    {Verdict::Valid, "valid", "the signature is valid"},
    {Verdict::Unreadable, "unreadable", "the file cannot be read"},
    {Verdict::NoFile, "no-file", "this is no regular file"},
    {Verdict::TooShort, "too-short", "the file is too short to be a signed package"},
    {Verdict::NoTrailer, "no-trailer", "the file does not end with a signature trailer"},
    {Verdict::UnknownFormat, "unknown-format", "the trailer has an unknown format version"},
    {Verdict::UnknownAlgorithm, "unknown-algorithm", "the trailer names an unknown algorithm"},
    {Verdict::MalformedTrailer, "malformed-trailer", "the trailer is damaged"},
    {Verdict::UnknownKey, "unknown-key", "no public key with the package's key identifier is known"},
    {Verdict::WrongKindOfKey, "wrong-kind-of-key", "the public key is not of the trailer's algorithm"},
    {Verdict::WrongSignature, "wrong-signature", "the signature does not match the content"},
};

constexpr struct {
  Trailer::State state;
  Verdict verdict;
} trailerVerdicts[] = {
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

bool digestContent(int file, std::int64_t size, PackageDigest& digest) {
  std::vector<unsigned char> buffer(readSize);
  for (std::int64_t offset = 0; offset < size;) {
    const auto part =
        static_cast<std::size_t>(std::min<std::int64_t>(size - offset, static_cast<std::int64_t>(readSize)));
    if (!readFully(file, buffer.data(), part, offset)) {
      return false;
    }
    digest.add(buffer.data(), part);
    offset += static_cast<std::int64_t>(part);
  }
  return true;
}

bool matches(const Trailer& trailer, const std::vector<unsigned char>& digest, EVP_PKEY* key) {
  const std::size_t size = trailer.algorithm->signatureSize;
  if (trailer.algorithm->signsDigestAsMessage) {
    const DigestContext context(EVP_MD_CTX_new());
    return context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), trailer.signature(), size, digest.data(), digest.size()) == 1;
  }
  const KeyContext context(EVP_PKEY_CTX_new(key, nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context.get(), EVP_get_digestbyname(trailer.algorithm->digest)) == 1 &&
         EVP_PKEY_verify(context.get(), trailer.signature(), size, digest.data(), digest.size()) == 1;
}

Verdict checkOpened(int file, std::int64_t size, Trailer& trailer, const KeySource& keys) {
  const std::int64_t content = size - static_cast<std::int64_t>(trailerSize);
  if (content <= 0) {
    return Verdict::TooShort;
  }
  // The trailer first: most of what is no package is refused without reading it.
  TrailerBytes bytes;
  if (!readFully(file, bytes.data(), bytes.size(), content)) {
    return Verdict::Unreadable;
  }
  trailer = parseTrailer(bytes);
  for (const auto& row : trailerVerdicts) {
    if (row.state == trailer.state) {
      return row.verdict;
    }
  }
  const Key key = keys(trailer.keyId);
  if (!key) {
    return Verdict::UnknownKey;
  }
  if (algorithmOf(key.get()) != trailer.algorithm) {
    return Verdict::WrongKindOfKey;
  }
  PackageDigest digest(*trailer.algorithm);
  if (!digestContent(file, content, digest)) {
    return Verdict::Unreadable;
  }
  digest.add(bytes.data(), headerSize);
  return matches(trailer, digest.finish(), key.get()) ? Verdict::Valid : Verdict::WrongSignature;
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
  for (const VerdictInfo& info : verdicts) {
    if (info.verdict == verdict) {
      return info;
    }
  }
  throw std::logic_error("a verdict without a name");
}

SignatureReport checkSignature(const std::string& path, const KeySource& keys) {
  SignatureReport report;
  const fwplatform::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    return report;
  }
  report.verdict = S_ISREG(status.st_mode) ? checkOpened(file.get(), status.st_size, report.trailer, keys)
                                           : Verdict::NoFile;
  return report;
}

}  // namespace fwpackage
