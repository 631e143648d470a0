#include "command-line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>

#include "commands.h"

namespace fwpack {
namespace {

constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failed, 2 usage, 3 refused (verify)";

// What a module's 128-byte buffers hold; a USB package's version block holds less.
constexpr std::size_t kLongestVersion = 127;
constexpr std::size_t kLongestPackageVersion = 63;

std::string checkVersion(const std::string& version, std::size_t longest) {
  if (version.empty() || version.size() > longest) {
    return "a version has 1 to " + std::to_string(longest) + " characters";
  }
  const bool printable =
      std::all_of(version.begin(), version.end(), [](char c) { return c >= ' ' && c <= '~'; });
  return printable ? "" : "a version is printable ASCII text";
}

std::string checkName(const std::string& name) {
  const bool good =
      !name.empty() && name.size() <= kLongestVersion && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      });
  return good ? "" : "a firmware name and a package identifier have ASCII letters and digits only";
}

void addInput(CLI::App& app, Options& options, const char* name, const char* what) {
  app.add_option(name, options.input, what)->required()->type_name("");
}

CLI::Option* addOutput(CLI::App& app, Options& options, const char* what) {
  return app.add_option("-o,--output", options.output, what)->type_name("FILE");
}

void addVersion(CLI::App& app, Options& options, std::size_t longest) {
  app.add_option("--version", options.version, "The firmware's version")
      ->required()
      ->type_name("TEXT")
      ->check([longest](const std::string& version) { return checkVersion(version, longest); });
}

void addExpectedTime(CLI::App& app, Options& options) {
  app.add_option("--expected-time", options.expectedTime, "How long the update takes")
      ->required()
      ->type_name("SECONDS");
}

std::string checkModel(const std::string& model) {
  const bool printable =
      !model.empty() && std::all_of(model.begin(), model.end(), [](char c) { return c >= ' ' && c <= '~'; });
  return printable ? "" : "a model is printable ASCII text";
}

// What the signature states beside name and version; an old package states nothing.
void addStatements(CLI::App& app, Options& options) {
  app.add_option("--model", options.model, "Only for sets of this model; default: for any")
      ->type_name("TEXT")
      ->check(checkModel);
  app.add_option("--minimum-version", options.minimumVersion, "Once applied, older packages are refused")
      ->type_name("TEXT")
      ->check([](const std::string& version) { return checkVersion(version, kLongestPackageVersion); });
}

CLI::Option* addSigningKey(CLI::App& app, Options& options) {
  return app.add_option("--signing-key", options.signingKeyFile, "The private key to sign with: PEM")
      ->type_name("FILE");
}

void addName(CLI::App& app, Options& options, const char* option, const char* what) {
  app.add_option(option, options.name, what)->required()->type_name("NAME")->check(checkName);
}

void addPublicKeys(CLI::App& app, Options& options) {
  auto* const file = app.add_option("--public-key", options.publicKeyFile, "Check against this PEM alone");
  file->type_name("FILE");
  app.add_option("--keys", options.keyDirectory, "Check against this directory's *.pem")
      ->type_name("DIR")
      ->capture_default_str()
      ->excludes(file);
}

void addWanted(CLI::App& app, Options& options) {
  app.add_option("--name", options.name, "The name it must be for; default: the file's")
      ->type_name("NAME")
      ->check(checkName);
  app.add_option("--model", options.model, "The model it must be for; default: any")
      ->type_name("TEXT")
      ->check(checkModel);
}

void addJson(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, "Print one JSON document");
}

void declareInfo(CLI::App& app, Options& options) {
  addInput(app, options, "IMAGE", "The firmware image");
  addVersion(app, options, kLongestVersion);
  addExpectedTime(app, options);
  addOutput(app, options, "Default: info.json beside the image");
}

void declareImage(CLI::App& app, Options& options) {
  addInput(app, options, "IMAGE", "The firmware image");
  app.add_option("--type", options.type, "For which images: " + imageTypes())
      ->required()
      ->type_name("TYPE")
      ->check([](const std::string& type) {
        return isImageType(type) ? std::string() : "the types are " + imageTypes();
      });
  addName(app, options, "--name", "Firmware name, such as tunerfw");
  addVersion(app, options, kLongestVersion);
  addExpectedTime(app, options);
  app.add_option("--into", options.output, "The directory to lay it out in")->required()->type_name("DIR");
}

void declareEmp(CLI::App& app, Options& options) {
  addInput(app, options, "IMAGE", "The firmware image");
  addName(app, options, "--id", "Package identifier, such as tunerempfw");
  addVersion(app, options, kLongestVersion);
  addExpectedTime(app, options);
  auto* const key = addSigningKey(app, options);
  app.add_flag("--unsigned", options.isUnsigned, "Do not sign it; sets refuse it unless told")->excludes(key);
  addStatements(app, options);
  addOutput(app, options, "Default: identifier and .img, in this directory");
}

void declareUsb(CLI::App& app, Options& options) {
  addInput(app, options, "IMAGE", "The firmware image");
  addVersion(app, options, kLongestPackageVersion);
  app.add_option("--key-file", options.keyFile, "The key to encrypt with: 32 raw bytes")
      ->required()
      ->type_name("FILE");
  addSigningKey(app, options)->required();
  app.add_option("--name", options.name, "Firmware name; default: from the output's name")
      ->type_name("NAME")
      ->check(checkName);
  addStatements(app, options);
  app.add_option("--format", options.format, "The signature's; 1 is for old sets")
      ->type_name("NUMBER")
      ->check(CLI::Range(int{fwpackage::kOldFormat}, int{fwpackage::kNewestFormat}))
      ->capture_default_str();
  addOutput(app, options, "The package: firmware name and .bin")->required();
}

void declareKeygen(CLI::App& app, Options& options) {
  app.add_option("KIND", options.type, keyKinds())
      ->required()
      ->type_name("")
      ->check([](const std::string& kind) {
        return isKeyKind(kind) ? std::string() : "the kinds of key are " + keyKinds();
      });
  app.add_option("FILE", options.output, "The new secret key; never overwritten")->required()->type_name("");
  app.add_option("--public", options.publicKeyFile, "Its public key; default: FILE.pem")->type_name("FILE");
}

void declareVerify(CLI::App& app, Options& options) {
  addInput(app, options, "PACKAGE", "The USB package or extension package");
  addPublicKeys(app, options);
  addWanted(app, options);
  addJson(app, options);
}

void declareInspect(CLI::App& app, Options& options) {
  addInput(app, options, "FILE", "An image, info.json, directory of both, or package");
  app.add_option("--key-file", options.keyFile, "Look into a USB package with this key")->type_name("FILE");
  addPublicKeys(app, options);
  addWanted(app, options);
  addJson(app, options);
}

constexpr Command kCommands[] = {
    {"info", "Write the info.json of an image", "fw-pack info tuner.bin --version 2.0.0 --expected-time 30",
     declareInfo, runInfo},
    {"image", "Lay out an image with its info.json for updates",
     "fw-pack image tuner.bin --type sbox --name tunerfw --version 2.0.0 \\\n"
     "           --expected-time 30 --into sbox",
     declareImage, runImage},
    {"emp", "Make an extension package image, reproducibly",
     "fw-pack emp tuner.bin --id tunerempfw --version 2.0.0 \\\n"
     "           --expected-time 30 --signing-key maker.key",
     declareEmp, runEmp},
    {"usb", "Make an encrypted, signed USB package",
     "fw-pack usb tuner.bin --version 2.0.0 --key-file package.key \\\n"
     "           --signing-key maker.key -o tunerfw.bin",
     declareUsb, runUsb},
    {"keygen", "Make a key", "fw-pack keygen ed25519 maker.key", declareKeygen, runKeygen},
    {"verify", "Check the signature of a package", "fw-pack verify tunerfw.bin --public-key maker.key.pem",
     declareVerify, runVerify},
    {"inspect", "Show what a file is", "fw-pack inspect tunerfw.bin --key-file package.key --json",
     declareInspect, runInspect},
};

void addCommand(CLI::App& app, Options& options, const Command& command) {
  CLI::App* const sub = app.add_subcommand(command.name, command.summary);
  sub->footer(std::string("Example: ") + command.example + "\n" + kExitCodes);
  command.declare(*sub, options);
  sub->callback([&options, &command] { options.command = &command; });
}

ExitCode usageError(const CLI::App& app, const std::string& sentence) {
  const auto chosen = app.get_subcommands();
  const auto command = chosen.empty() ? std::string() : chosen.front()->get_name() + " ";
  std::cerr << "fw-pack: " << sentence << "\nTry: fw-pack " << command << "--help\n";
  return ExitCode::Usage;
}

std::string reason(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
  const bool unknown = app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-';
  return unknown ? std::string("there is no command ") + argv[1] : error.what();
}

}  // namespace

std::variant<Options, ExitCode> parseCommandLine(int argc, char** argv) {
  Options options;
  CLI::App app("Makes firmware packages and says what they are.", "fw-pack");
  app.set_version_flag("--version", "fw-pack " FW_PACK_VERSION);
  app.require_subcommand(1);
  app.footer(std::string("Each command explains itself: fw-pack usb --help\n") + kExitCodes);
  for (const Command& command : kCommands) {
    addCommand(app, options, command);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {
    app.exit(wanted);
    return ExitCode::Done;
  } catch (const CLI::ParseError& error) {
    return usageError(app, reason(app, error, argc, argv));
  }
  return options;
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
