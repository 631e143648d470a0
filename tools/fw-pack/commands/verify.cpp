// SPDX-License-Identifier: Apache-2.0
// fw-pack verify PACKAGE
#include "../commands.h"
#include "../files.h"
#include "../signature-check.h"

namespace fwpack {

frame::Report runVerify(const Options& options) {
  const InputFile readable(options.input);
  const fwpackage::SignatureReport signature = checkSignature(options);
  const std::string text = options.input + ": " + toText(signature);
  Json::Value details = toJson(signature);
  details["file"] = options.input;
  if (signature.verdict == fwpackage::Verdict::Valid) {
    return answer(text + "\n", details);
  }
  frame::Report report(ExitCode::Refused, text);
  report.details = details;
  return report;
}

}  // namespace fwpack
