// SPDX-License-Identifier: Apache-2.0
// fw-pack info IMAGE
#include <filesystem>

#include "../commands.h"
#include "../files.h"

namespace fwpack {

frame::Report runInfo(const Options& options) {
  const InputFile image(options.input);
  const std::string output = options.output.empty()
                                 ? (std::filesystem::path(options.input).parent_path() / "info.json").string()
                                 : options.output;
  OutputFile file(output, kPublicMode);
  const image::Information information =
      describe(image, options.version, options.expectedTime, options.updateClass);
  file.write(image::toText(information));
  file.commit();
  Json::Value details = detailsOf(information);
  details["output"] = output;
  return answer(output + "\n", details);
}

}  // namespace fwpack
