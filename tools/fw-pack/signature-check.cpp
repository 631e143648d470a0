#include "signature-check.h"

#include <filesystem>

#include "public-keys.h"

namespace fwpack {
namespace {

std::string keyIdText(const fwpackage::KeyId& id) {
  return fwpackage::toHex(id.data(), id.size());
}

fwpackage::KeySource keySource(const Options& options) {
  if (options.publicKeyFile.empty()) {
    return
        [&options](const fwpackage::KeyId& id) { return fwpackage::findPublicKey(options.keyDirectory, id); };
  }
  if (!fwpackage::readPublicKey(options.publicKeyFile)) {
    throw Failure(ExitCode::Failed, options.publicKeyFile + " holds no public key in PEM");
  }
  return [&options](const fwpackage::KeyId& id) {
    fwpackage::Key key = fwpackage::readPublicKey(options.publicKeyFile);
    return key && fwpackage::keyIdOf(key.get()) == id ? std::move(key) : fwpackage::Key();
  };
}

}  // namespace

fwpackage::SignatureReport checkSignature(const Options& options) {
  return fwpackage::checkSignature(options.input, keySource(options));
}

Json::Value toJson(const fwpackage::SignatureReport& report) {
  const fwpackage::VerdictInfo& info = fwpackage::infoOf(report.verdict);
  Json::Value value;
  value["valid"] = report.verdict == fwpackage::Verdict::Valid;
  value["verdict"] = info.id;
  value["message"] = info.sentence;
  if (report.trailer.algorithm != nullptr) {
    value["algorithm"] = report.trailer.algorithm->name;
    value["keyId"] = keyIdText(report.trailer.keyId);
  }
  return value;
}

std::string toText(const fwpackage::SignatureReport& report) {
  std::string text = fwpackage::infoOf(report.verdict).sentence;
  if (report.trailer.algorithm != nullptr) {
    text +=
        " (" + std::string(report.trailer.algorithm->name) + ", key " + keyIdText(report.trailer.keyId) + ")";
  }
  return text;
}

}  // namespace fwpack
