// SPDX-License-Identifier: Apache-2.0
// fw-pack keygen KIND FILE
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

frame::Report makePackageKey(const std::string& path) {
  writePackageKey(path);
  Json::Value details;
  details["secretKey"] = path;
  return answer("secret   " + path + " (to encrypt packages with)\n", details);
}

frame::Report makeSigningKey(const fwpackage::Algorithm& algorithm, const std::string& secretPath,
                             const std::string& publicPath) {
  OutputFile secretFile(secretPath, kSecretMode, Existing::Keep);
  OutputFile publicFile(publicPath, kPublicMode, Existing::Keep);
  const SigningKey key(algorithm);
  key.writePrivatePem(secretFile);
  key.writePublicPem(publicFile);
  secretFile.commit();
  publicFile.commit();
  Json::Value details;
  details["secretKey"] = secretPath;
  details["publicKey"] = publicPath;
  addSigner(details, key);
  return answer("secret   " + secretPath + " (to sign packages with)\n" +  //
                    "public   " + publicPath + " (for " + fwpackage::kKeyDirectory + " of the devices)\n" +
                    "key id   " + details["keyId"].asString() + "\n",
                details);
}

}  // namespace

std::vector<std::string> keyKinds() {
  std::vector<std::string> kinds = {kPackageKind};
  for (const fwpackage::Algorithm& algorithm : fwpackage::kAlgorithms) {
    kinds.emplace_back(algorithm.name);
  }
  return kinds;
}

std::string keyKindProblem(const std::string& name) {
  const bool known = name == kPackageKind || findAlgorithm(name) != nullptr;
  return known ? "" : "the kinds of key are " + listOf(keyKinds());
}

frame::Report runKeygen(const Options& options) {
  const fwpackage::Algorithm* const algorithm = findAlgorithm(options.type);
  if (algorithm == nullptr) {
    return makePackageKey(options.output);
  }
  return makeSigningKey(*algorithm, options.output,
                        options.publicKeyFile.empty() ? options.output + ".pem" : options.publicKeyFile);
}

}  // namespace fwpack
