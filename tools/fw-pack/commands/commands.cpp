// SPDX-License-Identifier: Apache-2.0
// What the commands have in common.
#include "../commands.h"

#include <algorithm>
#include <iostream>

namespace fwpack {

std::string listOf(const std::vector<std::string>& words) {
  std::string list;
  for (const std::string& word : words) {
    list += (list.empty() ? "" : ", ") + word;
  }
  return list;
}

std::vector<std::string> updateClasses() {
  return {"security", "feature"};
}

std::string updateClassProblem(const std::string& name) {
  const std::vector<std::string> classes = updateClasses();
  return std::find(classes.begin(), classes.end(), name) != classes.end()
             ? ""
             : "the classes are " + listOf(classes);
}

frame::Report answer(const std::string& body, const Json::Value& details) {
  frame::Report report(ExitCode::Done);
  report.body = body;
  report.details = details;
  return report;
}

Json::Value detailsOf(const image::Information& information) {
  Json::Value details;
  details["version"] = information.version;
  details["crc"] = information.crc;
  details["expectedTime"] = information.expectedTime;
  if (!information.updateClass.empty()) {
    details["class"] = information.updateClass;
  }
  return details;
}

void addSigner(Json::Value& details, const SigningKey& key) {
  const fwpackage::KeyId id = key.keyId();
  details["algorithm"] = key.algorithm().name;
  details["keyId"] = fwpackage::toHex(id.data(), id.size());
}

std::optional<SigningKey> signerIfAny(const Options& options) {
  if (!options.signingKeyFile.empty()) {
    return SigningKey(withWarning(secret::readSecretFile(options.signingKeyFile)), options.signingKeyFile);
  }
  if (!options.model.empty() || !options.minimumVersion.empty()) {
    throw Failure(ExitCode::Usage, "model and minimum version are part of a signature; leave them out");
  }
  return std::nullopt;
}

void warn(const std::string& sentence) {
  std::cerr << "fw-pack: warning: " << sentence << std::endl;
}

secret::Secret withWarning(secret::Secret secret) {
  if (!secret.warning.empty()) {
    warn(secret.warning);
  }
  return secret;
}

}  // namespace fwpack
