// fw-pack keygen KIND FILE
#include <openssl/rand.h>

#include <iostream>

#include "../commands.h"
#include "../signing.h"

namespace fwpack {
namespace {

constexpr char kPackageKind[] = "package";

const fwpackage::Algorithm* findAlgorithm(const std::string& name) {
  for (const fwpackage::Algorithm& algorithm : fwpackage::kAlgorithms) {
    if (name == algorithm.name) {
      return &algorithm;
    }
  }
  return nullptr;
}

void makePackageKey(const std::string& path) {
  secret::Secret key(secret::kPackageKeySize);
  if (RAND_priv_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    throw Failure(ExitCode::Failed, "the system gives no random numbers");
  }
  OutputFile file(path, kSecretMode, Existing::Keep);
  file.write(key.data(), key.size());
  file.commit();
  std::cout << "secret   " << path << " (to encrypt packages with)" << std::endl;
}

void makeSigningKey(const fwpackage::Algorithm& algorithm, const std::string& secretPath,
                    const std::string& publicPath) {
  OutputFile secretFile(secretPath, kSecretMode, Existing::Keep);
  OutputFile publicFile(publicPath, kPublicMode, Existing::Keep);
  const SigningKey key(algorithm);
  key.writePrivatePem(secretFile);
  key.writePublicPem(publicFile);
  secretFile.commit();
  publicFile.commit();
  const fwpackage::KeyId id = key.keyId();
  std::cout << "secret   " << secretPath << " (to sign packages with)\n"
            << "public   " << publicPath << " (for " << fwpackage::kEyDirectory << " of the devices)\n"
            << "key id   " << fwpackage::toHex(id.data(), id.size()) << std::endl;
}

}  // namespace

std::string keyKinds() {
  std::string kinds = kPackageKind;
  for (const fwpackage::Algorithm& algorithm : fwpackage::kAlgorithms) {
    kinds += std::string(", ") + algorithm.name;
  }
  return kinds;
}

bool isKeyKind(const std::string& name) {
  return name == kPackageKind || findAlgorithm(name) != nullptr;
}

ExitCode runKeygen(const Options& options) {
  const fwpackage::Algorithm* const algorithm = findAlgorithm(options.type);
  if (algorithm == nullptr) {
    makePackageKey(options.output);
    return ExitCode::Done;
  }
  const std::string publicPath =
      options.publicKeyFile.empty() ? options.output + ".pem" : options.publicKeyFile;
  makeSigningKey(*algorithm, options.output, publicPath);
  return ExitCode::Done;
}

}  // namespace fwpack
