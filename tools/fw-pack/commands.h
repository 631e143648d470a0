// SPDX-License-Identifier: Apache-2.0
// The commands themselves, one source file each in commands/.
#ifndef FW_PACK_COMMANDS_H
#define FW_PACK_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

#include "exit-code.h"
#include "frame/report.h"
#include "image-information.h"
#include "options.h"
#include "secret-file.h"
#include "signing.h"

namespace fwpack {

frame::Report runInfo(const Options& options);
frame::Report runImage(const Options& options);
frame::Report runEmp(const Options& options);
frame::Report runUsb(const Options& options);
frame::Report runKeygen(const Options& options);
frame::Report runRelease(const Options& options);
frame::Report runVerify(const Options& options);
frame::Report runInspect(const Options& options);

// The words that --class, --type and keygen's KIND take, and what is wrong with another.
std::vector<std::string> updateClasses();
std::string updateClassProblem(const std::string& name);
std::vector<std::string> imageTypes();
std::string imageTypeProblem(const std::string& name);
std::vector<std::string> keyKinds();
std::string keyKindProblem(const std::string& name);

// "a, b, c"
std::string listOf(const std::vector<std::string>& words);

// What was done, as text and as the members of a document.
frame::Report answer(const std::string& body, const Json::Value& details);
// "version", "crc", "expectedTime", and "class" when it is stated.
Json::Value detailsOf(const image::Information& information);
// "algorithm" and "keyId".
void addSigner(Json::Value& details, const SigningKey& key);

// The key that the command line names. Without one, nothing may be told that a signature states.
std::optional<SigningKey> signerIfAny(const Options& options);

// On standard error.
void warn(const std::string& sentence);
// The same secret, after what there is to warn of.
secret::Secret withWarning(secret::Secret secret);

}  // namespace fwpack

#endif
