// SPDX-License-Identifier: Apache-2.0
#include "package-security.h"

#include <fcntl.h>

#include "device-layout.h"
#include "files.h"
#include "public-keys.h"
#include "signing.h"
#include "tool-location.h"

namespace fwdevice {
namespace fs = std::filesystem;
using sandbox::DirectoryTree;
namespace {

constexpr char kMaker[] = "/maker";
constexpr char kSigningKey[] = "/signing.key";
constexpr char kPublicKey[] = "/demonstration.pem";
constexpr char kShared[] = "/usr/share/fw-update";
constexpr char kPackageKey[] = "/package.key";

bool installVerifier(const DirectoryTree& tree, const std::string& programs) {
  const auto verifier = verifierPath(programs);
  if (!fs::exists(verifier)) {
    return false;
  }
  installLibrary(verifier, tree.make(fs::path(sandbox::kVerifierLibrary).parent_path()));
  return true;
}

bool isThere(const DirectoryTree& tree, const std::string& path) {
  return static_cast<bool>(tree.open(path, O_PATH | O_NOFOLLOW));
}

void makeSigningKey(const std::string& path) {
  for (const auto& algorithm : fwpackage::kAlgorithms) {
    if (algorithm.way == &fwpackage::kDigestAsMessage) {  // such a key is made in no time
      fwpack::OutputFile file(path, fwpack::kSecretMode, fwpack::Existing::Keep);
      fwpack::SigningKey(algorithm).writePrivatePem(file);
      return file.commit();
    }
  }
}

void installPublicKey(const std::string& signingKey, const std::string& keys) {
  const fwpack::SigningKey key(secret::readSecretFile(signingKey), signingKey);
  fwpack::OutputFile file(keys + kPublicKey, fwpack::kPublicMode);
  key.writePublicPem(file);
  file.commit();
}

}  // namespace

void installLibrary(const fs::path& library, const base::FileDescriptor& directory) {
  const auto target = fs::path(directory.path()) / library.filename();
  auto unfinished = target;
  unfinished += ".new";
  fs::remove(unfinished);  // what an interrupted run left, or a link
  fs::copy_file(library, unfinished);
  fs::rename(unfinished, target);
}

PackageSecurity installPackageSecurity(const std::string& device, const DirectoryTree& tree,
                                       const std::string& programs) {
  const bool verified = installVerifier(tree, programs);
  const auto maker = tree.make(kMaker);
  const auto signingKey = maker.path() + kSigningKey;
  if (!isThere(tree, std::string(kMaker) + kSigningKey)) {
    makeSigningKey(signingKey);
  }
  const auto shared = tree.make(kShared);
  if (!isThere(tree, std::string(kShared) + kPackageKey)) {
    fwpack::writePackageKey(shared.path() + kPackageKey);
  }
  installPublicKey(signingKey, tree.make(fwpackage::kKeyDirectory).path());
  return {verified ? device + sandbox::kVerifierLibrary : "", device + kMaker + kSigningKey,
          device + kShared + kPackageKey};
}

void signPackage(const std::string& path, const std::string& name, const std::string& version,
                 const std::string& signingKey) {
  const fwpack::SigningKey key(secret::readSecretFile(signingKey), signingKey);
  const fwpack::InputFile content(path);
  fwpack::OutputFile package(path, fwpack::kPublicMode);
  content.readAll([&](const unsigned char* bytes, std::size_t size) { package.write(bytes, size); });
  fwpack::appendSignature(package, key, {fwpackage::Kind::ExtensionPackage, name, "", version, ""});
  package.commit();
}

}  // namespace fwdevice
