#include "package-security.h"

#include <openssl/rand.h>

#include <stdexcept>

#include "device-layout.h"
#include "files.h"
#include "public-keys.h"
#include "signing.h"
#include "tool-location.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

constexpr char kSigningKey[] = "/maker/signing.key";
constexpr char kPublicKey[] = "/demonstration.pem";
constexpr char kPackageKey[] = "/usr/share/fw-update/package.key";

std::string installVerifier(const std::string& device, const std::string& programs) {
  const auto verifier = verifierPath(programs);
  if (!fs::exists(verifier)) {
    return "";
  }
  const fs::path target = device + sandbox::kVerifierLibrary;
  installLibrary(verifier, target.parent_path());
  return target;
}

void makeSigningKey(const std::string& path) {
  for (const auto& algorithm : fwpackage::algorithms) {
    if (algorithm.signsDigestAsMessage) {  // such a key is made in no time
      fwpack::OutputFile file(path, fwpack::secretMode, fwpack::Existing::Keep);
      fwpack::SigningKey(algorithm).writePrivatePem(file);
      return file.commit();
    }
  }
}

void makePackageKey(const std::string& path) {
  secret::Secret key(secret::packageKeySize);
  if (RAND_priv_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  fwpack::OutputFile file(path, fwpack::secretMode, fwpack::Existing::Keep);
  file.write(key.data(), key.size());
  file.commit();
}

void installPublicKey(const std::string& signingKey, const std::string& device) {
  const fwpack::SigningKey key(secret::readSecretFile(signingKey), signingKey);
  fwpack::OutputFile file(device + fwpackage::keyDirectory + kPublicKey, fwpack::publicMode);
  key.writePublicPem(file);
  file.commit();
}

}  // namespace

void installLibrary(const fs::path& library, const std::string& directory) {
  const auto target = fs::path(directory) / library.filename();
  auto unfinished = target;
  unfinished += ".new";
  fs::copy_file(library, unfinished, fs::copy_options::overwrite_existing);
  fs::rename(unfinished, target);
}

PackageSecurity installPackageSecurity(const std::string& device, const std::string& programs) {
  PackageSecurity security{installVerifier(device, programs), device + kSigningKey, device + kPackageKey};
  fs::create_directories(fs::path(security.signingKey).parent_path());
  if (!fs::exists(security.signingKey)) {
    makeSigningKey(security.signingKey);
  }
  if (!fs::exists(security.packageKey)) {
    makePackageKey(security.packageKey);
  }
  installPublicKey(security.signingKey, device);
  return security;
}

void signPackage(const std::string& path, const std::string& name, const std::string& version,
                 const std::string& signingKey) {
  const fwpack::SigningKey key(secret::readSecretFile(signingKey), signingKey);
  const fwpack::InputFile content(path);
  fwpack::OutputFile package(path, fwpack::publicMode);
  content.readAll([&](const unsigned char* bytes, std::size_t size) { package.write(bytes, size); });
  fwpack::appendSignature(package, key, {fwpackage::Kind::ExtensionPackage, name, "", version, ""});
  package.commit();
}

}  // namespace fwdevice
