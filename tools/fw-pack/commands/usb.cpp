// SPDX-License-Identifier: Apache-2.0
// fw-pack usb IMAGE
#include <openssl/rand.h>

#include <algorithm>

#include "../commands.h"
#include "../package-cipher.h"
#include "../signing.h"
#include "module-names.h"
#include "version-order.h"

namespace fwpack {
namespace {

Iv newIv() {
  Iv iv;
  if (RAND_bytes(iv.data(), static_cast<int>(iv.size())) != 1) {
    throw Failure(ExitCode::Failed, "the system gives no random numbers");
  }
  return iv;
}

void requireUsableSize(const InputFile& image) {
  if (image.size() == 0) {
    throw Failure(ExitCode::Failed, image.path() + " is empty; modules refuse an empty image");
  }
  if (packageSize(image.size()) > kLargestPackage) {
    throw Failure(ExitCode::Failed, image.path() + " is too large: a package has at most " +
                                        std::to_string(kLargestPackage) + " bytes");
  }
}

// Whoever asks for an old package wants none of these; in silence they would be lost.
void requireFormatForOptions(const Options& options) {
  const bool states = !options.name.empty() || !options.model.empty() || !options.minimumVersion.empty();
  if (options.format == fwpackage::kOldFormat && states) {
    throw Failure(ExitCode::Usage,
                  "a package of format 1 states no name, model or minimum version; leave these options out");
  }
}

void requireSense(const fwpackage::Statements& statements) {
  if (!fwnames::isPlainName(statements.name)) {
    throw Failure(ExitCode::Usage, "a firmware name has ASCII letters and digits only, not " +
                                       statements.name + "; give it with --name");
  }
  if (fwpackage::isOlder(statements.version, statements.minimumVersion)) {
    throw Failure(ExitCode::Usage, "version " + statements.version +
                                       " is older than its own minimum version " + statements.minimumVersion);
  }
}

fwpackage::Statements statementsOf(const Options& options) {
  fwpackage::Statements statements;
  statements.name = options.name.empty() ? fwpackage::nameFromPath(options.output) : options.name;
  statements.model = options.model;
  statements.version = options.version;
  statements.minimumVersion = options.minimumVersion;
  return statements;
}

// Everything but the trailer goes through here: into the file and the digest.
void writeContent(const InputFile& image, const std::string& version, const secret::Secret& key,
                  const Block& output) {
  const Iv iv = newIv();
  output(iv.data(), iv.size());
  PackageCipher cipher(key, iv, PackageCipher::Direction::Encrypt);
  std::array<unsigned char, kVersionBlockSize> versionBlock{};
  std::copy(version.begin(), version.end(), versionBlock.begin());
  cipher.add(versionBlock.data(), versionBlock.size(), output);
  image.readAll([&](const unsigned char* bytes, std::size_t size) { cipher.add(bytes, size, output); });
  cipher.finish(output);
}

}  // namespace

frame::Report runUsb(const Options& options) {
  requireFormatForOptions(options);
  const secret::Secret key = withWarning(secret::readPackageKey(options.keyFile));
  const secret::Secret pem = withWarning(secret::readSecretFile(options.signingKeyFile));
  const SigningKey signer(pem, options.signingKeyFile);
  const auto format = static_cast<unsigned char>(options.format);
  const fwpackage::Statements statements = statementsOf(options);
  if (format != fwpackage::kOldFormat) {
    requireSense(statements);
  }
  signer.requireRoom(format, statements);
  const InputFile image(options.input);
  requireUsableSize(image);

  OutputFile package(options.output, kPublicMode);
  fwpackage::PackageDigest digest(signer.algorithm());
  writeContent(image, options.version, key, [&](const unsigned char* bytes, std::size_t size) {
    package.write(bytes, size);
    digest.add(bytes, size);
  });
  const fwpackage::TrailerBytes trailer = signer.makeTrailer(digest, format, statements);
  package.write(trailer.data(), trailer.size());
  package.commit();

  Json::Value details;
  details["output"] = options.output;
  details["version"] = options.version;
  details["format"] = options.format;
  addSigner(details, signer);
  return answer(options.output + ", signed with " + signer.text() + "\n", details);
}

}  // namespace fwpack
