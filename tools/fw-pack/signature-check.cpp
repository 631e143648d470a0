// SPDX-License-Identifier: Apache-2.0
#include "signature-check.h"

#include <algorithm>
#include <iterator>

#include "exit-code.h"
#include "files.h"
#include "public-keys.h"

namespace fwpack {
namespace {

std::string keyIdText(const fwpackage::KeyId& id) {
  return fwpackage::toHex(id.data(), id.size());
}

// A key that is named is trusted alone, and with everything.
fwpackage::Trust trustInFile(const std::string& path) {
  if (!fwpackage::readPublicKey(path)) {
    throw Failure(ExitCode::Failed, path + " holds no public key in PEM");
  }
  return {[path](const fwpackage::KeyId& id) {
            fwpackage::Key key = fwpackage::readPublicKey(path);
            return key && fwpackage::keyIdOf(key.get()) == id ? std::move(key) : fwpackage::Key();
          },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::No; },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::Yes; },
          [](const std::string&) { return fwpackage::MinimumVersion(); }};
}

fwpackage::Expectation expectationOf(const Options& options) {
  fwpackage::Expectation expected;
  expected.kind =
      isSquashfs(InputFile(options.input)) ? fwpackage::Kind::ExtensionPackage : fwpackage::Kind::UsbPackage;
  expected.name = options.name.empty() ? fwpackage::nameFromPath(options.input) : options.name;
  expected.anyModel = options.model.empty();
  expected.model = options.model;
  return expected;
}

// The text that the reader asks for first: what it is for.
std::string stated(const fwpackage::Statements& statements) {
  return statements.name + " " + statements.version +
         (statements.model.empty() ? "" : " on " + statements.model) +
         (statements.minimumVersion.empty() ? "" : ", from then on none below " + statements.minimumVersion);
}

// What the trailer states is told only when it was signed.
bool isSigned(const fwpackage::SignatureReport& report) {
  constexpr fwpackage::Verdict kVerdicts[] = {fwpackage::Verdict::Valid, fwpackage::Verdict::OtherKind,
                                              fwpackage::Verdict::OtherName, fwpackage::Verdict::OtherModel};
  return report.trailer.format == fwpackage::kNewestFormat &&
         std::find(std::begin(kVerdicts), std::end(kVerdicts), report.verdict) != std::end(kVerdicts);
}

void addStatements(Json::Value& value, const fwpackage::Statements& statements) {
  value["for"] = statements.kind == fwpackage::Kind::UsbPackage ? "usb-package" : "extension-package";
  value["name"] = statements.name;
  value["model"] = statements.model;
  value["version"] = statements.version;
  value["minimumVersion"] = statements.minimumVersion;
}

// " (ed25519, key 0123456789abcdef)"; empty when the trailer names none.
std::string signer(const fwpackage::SignatureReport& report) {
  if (report.trailer.algorithm == nullptr) {
    return "";
  }
  const std::string old = report.trailer.format == fwpackage::kOldFormat ? ", format 1" : "";
  return " (" + std::string(report.trailer.algorithm->name) + ", key " + keyIdText(report.trailer.keyId) +
         old + ")";
}

}  // namespace

fwpackage::SignatureReport checkSignature(const Options& options) {
  const fwpackage::Trust trust = options.publicKeyFile.empty() ? fwpackage::trustIn(options.keyDirectory)
                                                               : trustInFile(options.publicKeyFile);
  return fwpackage::checkSignature(options.input, trust, expectationOf(options));
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
    value["format"] = report.trailer.format;
  }
  if (isSigned(report)) {
    addStatements(value, report.trailer.statements);
  }
  return value;
}

std::string toText(const fwpackage::SignatureReport& report) {
  std::string text = fwpackage::infoOf(report.verdict).sentence;
  if (isSigned(report)) {
    const bool valid = report.verdict == fwpackage::Verdict::Valid;
    text += (valid ? " for " : ": ") + stated(report.trailer.statements);
  }
  return text + signer(report);
}

std::string toTextForALook(const fwpackage::SignatureReport& report) {
  return report.verdict == fwpackage::Verdict::UnknownKey
             ? "not checked: the signer's key is not at hand; give its public half with --public-key" +
                   signer(report)
             : toText(report);
}

}  // namespace fwpack
