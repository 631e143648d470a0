// The commands themselves, one source file each in commands/.
#ifndef FW_PACK_COMMANDS_H
#define FW_PACK_COMMANDS_H

#include "command-line.h"

namespace fwpack {

ExitCode runInfo(const Options& options);
ExitCode runImage(const Options& options);
ExitCode runEmp(const Options& options);
ExitCode runUsb(const Options& options);
ExitCode runKeygen(const Options& options);
ExitCode runVerify(const Options& options);
ExitCode runInspect(const Options& options);

// The kinds that --type and keygen know, for help and checks: "a, b or c".
std::string imageTypes();
bool isImageType(const std::string& name);
std::string keyKinds();
bool isKeyKind(const std::string& name);

}  // namespace fwpack

#endif
