// SPDX-License-Identifier: Apache-2.0
// fw-pack release DIR
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "../commands.h"
#include "../files.h"
#include "../release-input.h"
#include "../signature-check.h"
#include "list-signature.h"
#include "release-list.h"

namespace fwpack {
namespace {

namespace fs = std::filesystem;
using image::ReleaseList;

constexpr char kUploadFile[] = "upload.json";
constexpr char kSetName[] = "releases";  // of distribution sets

// What sets would refuse, they are not offered.
void requireNewer(const std::string& path, const ReleaseList& list) {
  if (!fs::exists(path)) {
    return;
  }
  const auto before = image::parseReleaseList(InputFile(path).text(0, image::kLargestReleaseList + 1)).list;
  if (!before) {
    throw Failure(ExitCode::Failed, path + " is there already, and is no release list");
  }
  if (before->number >= list.number || before->issued > list.issued) {
    throw Failure(ExitCode::Failed, path + " has number " + std::to_string(before->number) +
                                        " and was issued at " + image::timeText(before->issued) +
                                        ": sets refuse a list that is not newer");
  }
}

ReleaseList listOf(const Options& options, const std::vector<ReleaseInput>& inputs) {
  ReleaseList list;
  list.number = options.number;
  list.issued = options.issued.empty() ? std::int64_t{std::time(nullptr)} : *image::parseTime(options.issued);
  list.expires = *image::parseTime(options.expires);
  for (const ReleaseInput& input : inputs) {
    list.components.push_back(input.component);
  }
  if (const std::string problem = image::parseReleaseList(toText(list)).problem; !problem.empty()) {
    throw Failure(ExitCode::Failed, "sets would refuse this list: " + problem);
  }
  return list;
}

std::string placeOf(const image::ReleaseArtifact& artifact) {
  return std::string(image::kArtifactDirectory) + "/" + artifact.sha256;
}

void copyArtifacts(const std::vector<ReleaseInput>& inputs, const fs::path& into) {
  makeDirectories(into / image::kArtifactDirectory);
  for (const ReleaseInput& input : inputs) {
    for (std::size_t number = 0; number < input.paths.size(); ++number) {
      const image::ReleaseArtifact& artifact = input.component.artifacts[number];
      const std::string copy = (into / placeOf(artifact)).string();
      copyFile(InputFile(input.paths[number]), copy);
      if (sha256Of(copy) != artifact.sha256) {
        throw Failure(ExitCode::Failed, input.paths[number] + " was changed while it was read");
      }
    }
  }
}

// For a script: what is to be created on a server, or copied into a directory, in this order.
Json::Value uploadOf(const ReleaseList& list) {
  Json::Value upload;
  upload["format"] = 1;
  Json::Value& modules = upload["softwareModules"] = Json::Value(Json::arrayValue);
  Json::Value& set = upload["distributionSet"];
  set["name"] = kSetName;
  set["version"] = std::to_string(list.number);
  Json::Value& files = upload["files"] = Json::Value(Json::arrayValue);
  for (const image::ReleaseComponent& component : list.components) {
    Json::Value module;
    module["name"] = component.name;
    module["version"] = component.version;
    set["softwareModules"].append(module);
    for (const image::ReleaseArtifact& artifact : component.artifacts) {
      Json::Value& entry = module["artifacts"].append(Json::Value());
      entry["filename"] = artifact.file;
      entry["path"] = placeOf(artifact);
      entry["size"] = static_cast<Json::Int64>(artifact.size);
      entry["sha256"] = artifact.sha256;
      files.append(placeOf(artifact));
    }
    modules.append(module);
  }
  files.append(std::string(image::kReleaseListFile) + fwpackage::kListSignatureSuffix);
  files.append(image::kReleaseListFile);
  return upload;
}

void writeFile(const std::string& path, const std::string& content) {
  OutputFile file(path, kPublicMode);
  file.write(content);
  file.commit();
}

frame::Report reportOf(const ReleaseList& list, const Options& options, const SigningKey& key) {
  const fs::path into = options.output;
  Json::Value details;
  details["list"] = (into / image::kReleaseListFile).string();
  details["signature"] = details["list"].asString() + fwpackage::kListSignatureSuffix;
  details["upload"] = (into / kUploadFile).string();
  details["number"] = static_cast<Json::Int64>(list.number);
  details["issued"] = image::timeText(list.issued);
  details["expires"] = image::timeText(list.expires);
  addSigner(details, key);
  std::string body;
  for (const image::ReleaseComponent& component : list.components) {
    Json::Value& entry = details["components"].append(Json::Value());
    entry["name"] = component.name;
    entry["version"] = component.version;
    entry["model"] = component.model;
    body += component.name + " " + component.version +
            (component.model.empty() ? "" : " on " + component.model) + "\n";
  }
  body += details["list"].asString() + ", number " + std::to_string(list.number) + ", signed with " +
          key.text() + ", until " + image::timeText(list.expires) + "\n";
  return answer(body, details);
}

}  // namespace

frame::Report runRelease(const Options& options) {
  const SigningKey key(withWarning(secret::readSecretFile(options.signingKeyFile)), options.signingKeyFile);
  key.requireRoom(fwpackage::kNewestFormat, {fwpackage::Kind::ReleaseList, fwpackage::kListName, "",
                                             std::to_string(options.number), ""});
  std::vector<fwpackage::Trust> trusts = {key.trust()};
  if (!options.publicKeyFile.empty()) {
    trusts.push_back(trustInFile(options.publicKeyFile));
  }
  const std::vector<ReleaseInput> inputs = readReleaseInput(options.input, trusts);
  const ReleaseList list = listOf(options, inputs);
  const fs::path into = options.output;
  const std::string path = (into / image::kReleaseListFile).string();
  requireNewer(path, list);
  copyArtifacts(inputs, into);
  writeFile(path, toText(list));
  writeListSignature(path, std::to_string(list.number), key);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  writeFile((into / kUploadFile).string(), Json::writeString(builder, uploadOf(list)) + "\n");
  return reportOf(list, options, key);
}

}  // namespace fwpack
