// SPDX-License-Identifier: Apache-2.0
// fw-pack emp IMAGE --id IDENTIFIER
#include <filesystem>
#include <optional>

#include "../child-program.h"
#include "../commands.h"
#include "../files.h"
#include "../signing.h"
#include "module-names.h"
#include "squashfs.h"
#include "temporary-folder.h"

namespace fwpack {
namespace {

std::string firmwareNameOf(const std::string& identifier) {
  std::string name = fwnames::firmwareNameOf(identifier);
  if (name.empty() || name == identifier) {
    throw Failure(ExitCode::Usage,
                  "the package identifier " + identifier + " must be a firmware name with \"emp\" in it");
  }
  return name;
}

void makeSquashfs(const std::string& content, const std::string& target) {
  std::string messages;
  const bool made = runProgram(image::squashfsCommand(content, target), kSquashfsTools,
                               [&](std::string_view bytes) { messages.append(bytes); });
  if (!made) {
    throw Failure(ExitCode::Failed, "mksquashfs failed: " + messages);
  }
}

// What nobody signed is made for those alone who say so: sets refuse it.
std::optional<SigningKey> signerOf(const Options& options) {
  if (!options.isUnsigned && options.signingKeyFile.empty()) {
    throw Failure(ExitCode::Usage,
                  "sign the package with --signing-key FILE, or say that it is to be --unsigned");
  }
  return signerIfAny(options);
}

fwpackage::Statements statementsOf(const Options& options) {
  return {fwpackage::Kind::ExtensionPackage, options.name, options.model, options.version,
          options.minimumVersion};
}

}  // namespace

frame::Report runEmp(const Options& options) {
  const std::string firmwareName = firmwareNameOf(options.name);
  const std::optional<SigningKey> signer = signerOf(options);
  if (signer) {
    signer->requireRoom(fwpackage::kNewestFormat, statementsOf(options));
  }
  const InputFile image(options.input);
  const std::string output = options.output.empty() ? options.name + ".img" : options.output;
  const base::TemporaryFolder content(std::filesystem::temp_directory_path() / "fw-pack");
  OutputFile information(content.path() + "/info.json", kPublicMode);
  const image::Information described =
      describe(image, options.version, options.expectedTime, options.updateClass);
  information.write(image::toText(described));
  information.commit();
  copyFile(image, content.path() + "/" + firmwareName + ".bin");

  OutputFile package(output, kPublicMode);
  makeSquashfs(content.path(), package.unfinished());
  if (signer) {
    appendSignature(package, *signer, statementsOf(options));
  }
  package.commit();
  Json::Value details = detailsOf(described);
  details["output"] = output;
  details["signed"] = signer.has_value();
  if (signer) {
    addSigner(details, *signer);
  }
  return answer(output + (signer ? ", signed with " + signer->text() : ", not signed") + "\n", details);
}

}  // namespace fwpack
