// fw-pack verify PACKAGE
#include <json/value.h>

#include <iostream>

#include "../commands.h"
#include "../files.h"
#include "../signature-check.h"
#include "text-layout.h"

namespace fwpack {

ExitCode runVerify(const Options& options) {
  const InputFile readable(options.input);
  const fwpackage::SignatureReport report = checkSignature(options);
  const bool valid = report.verdict == fwpackage::Verdict::Valid;
  if (options.json) {
    Json::Value document = toJson(report);
    document["file"] = options.input;
    std::cout << tool::indented(document) << std::flush;
  } else if (valid) {
    std::cout << options.input << ": " << toText(report) << std::endl;
  } else {
    std::cerr << "fw-pack: " << options.input << ": " << toText(report) << std::endl;
  }
  return valid ? ExitCode::Done : ExitCode::Refused;
}

}  // namespace fwpack
