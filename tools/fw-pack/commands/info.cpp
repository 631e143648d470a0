// fw-pack info IMAGE
#include <filesystem>
#include <iostream>

#include "../commands.h"
#include "../files.h"
#include "../information.h"

namespace fwpack {

ExitCode runInfo(const Options& options) {
  const InputFile image(options.input);
  const std::string output = options.output.empty()
                                 ? (std::filesystem::path(options.input).parent_path() / "info.json").string()
                                 : options.output;
  OutputFile file(output, kPublicMode);
  file.write(toText(describe(image, options.version, options.expectedTime)));
  file.commit();
  std::cout << output << std::endl;
  return ExitCode::Done;
}

}  // namespace fwpack
