// The command line: one table of commands, and the options of all of them.
#ifndef FW_PACK_COMMAND_LINE_H
#define FW_PACK_COMMAND_LINE_H

#include <cstdint>
#include <string>
#include <variant>

#include "exit-code.h"
#include "public-keys.h"
#include "secret-file.h"

namespace CLI {
class App;
}

namespace fwpack {

struct Command;

struct Options {
  const Command* command = nullptr;
  std::string input;
  std::string output;
  std::string version;
  std::uint32_t expectedTime = 0;
  std::string name;  // a firmware name, or a package identifier
  std::string model;
  std::string minimumVersion;
  int format = fwpackage::kNewestFormat;
  std::string type;
  std::string keyFile;
  std::string signingKeyFile;
  bool isUnsigned = false;
  std::string publicKeyFile;
  std::string keyDirectory = fwpackage::kEyDirectory;
  bool json = false;
};

struct Command {
  const char* name;
  const char* summary;
  const char* example;
  void (*declare)(CLI::App& app, Options& options);
  ExitCode (*run)(const Options& options);
};

// Options, or the exit code when help was printed or the usage was wrong.
std::variant<Options, ExitCode> parseCommandLine(int argc, char** argv);

// On standard error.
void warn(const std::string& sentence);
// The same secret, after what there is to warn of.
secret::Secret withWarning(secret::Secret secret);

}  // namespace fwpack

#endif
