// SPDX-License-Identifier: Apache-2.0
#include "scripted-module.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

#include "recording-platform.h"

namespace scripted {
namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<Module>> modules;
};

Registry& registry() {
  static auto& instance = *new Registry;
  return instance;
}

void note(const char* stem, const std::string& call) {
  recording::noteCall(std::string(stem) + "." + call);
}

void installVariant(const std::string& stem, const std::string& variant) {
  const std::string file = "/prd/usr/fwupdate/controls/" + stem + ".so";
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  std::filesystem::remove(file);  // not written over: it may be loaded
  std::filesystem::copy_file(std::string(SCRIPTED_MODULES_DIRECTORY) + "/scripted-" + variant + ".so", file);
}

std::string quoted(const char* text) {
  return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

}  // namespace

Module& module(const std::string& stem) {
  const std::lock_guard<std::mutex> lock(registry().mutex);
  std::unique_ptr<Module>& entry = registry().modules[stem];
  if (!entry) {
    entry = std::make_unique<Module>();
  }
  return *entry;
}

void resetModules() {
  const std::lock_guard<std::mutex> lock(registry().mutex);
  registry().modules.clear();
}

void installModule(const std::string& stem, const std::string& without) {
  installVariant(stem, without.empty() ? "complete" : "without-" + without);
}

void installModuleUntil(const std::string& stem, const std::string& entryPoint) {
  installVariant(stem, "until-" + entryPoint);
}

void installUnresolvedModule(const std::string& stem) {
  installVariant(stem, "unresolved");
}

}  // namespace scripted

// ---- What the module library calls ------------------------------------------------

#define SCRIPT_ENTRY extern "C" __attribute__((visibility("default")))

SCRIPT_ENTRY int scripted_setContext(const char* stem, const char* libName, int caller, char* data) {
  scripted::note(stem, "setContext(" + scripted::quoted(libName) + ", " + std::to_string(caller) + ", " +
                           scripted::quoted(data) + ")");
  scripted::Module& module = scripted::module(stem);
  return module.setContext ? module.setContext(libName, caller, data) : module.setContextResult;
}

SCRIPT_ENTRY int scripted_getEMPID(const char* stem, char* out) {
  scripted::note(stem, "getEMPID()");
  scripted::Module& module = scripted::module(stem);
  if (module.writeEMPID) {
    module.writeEMPID(out);
  } else {
    std::strcpy(out, module.empId.c_str());
  }
  return 7;  // ignored by the library
}

SCRIPT_ENTRY int scripted_getActiveVersion(const char* stem, char* out) {
  scripted::note(stem, "getActiveVersion()");
  scripted::Module& module = scripted::module(stem);
  if (module.writeActiveVersion) {
    return module.writeActiveVersion(out);
  }
  std::strcpy(out, module.activeVersion.c_str());
  return module.activeVersionResult;
}

SCRIPT_ENTRY int scripted_checkVersion(const char* stem, const char* version, int* need) {
  scripted::note(stem, "checkVersion(" + scripted::quoted(version) + ", " + std::to_string(*need) + ")");
  scripted::Module& module = scripted::module(stem);
  if (module.checkVersion) {
    return module.checkVersion(version, need);
  }
  *need = module.need;
  return module.checkVersionResult;
}

SCRIPT_ENTRY int scripted_doUpdate(const char* stem, const char* path, unsigned long value) {
  scripted::note(stem, "doUpdate(" + scripted::quoted(path) + ", " + std::to_string(value) + ")");
  scripted::Module& module = scripted::module(stem);
  const int result = module.doUpdate ? module.doUpdate(path, value) : module.doUpdateResult;
  if (module.errorNumber != 0) {
    errno = module.errorNumber;
  }
  return result;
}

SCRIPT_ENTRY int scripted_allUpdateDone(const char* stem) {
  scripted::note(stem, "allUpdateDone()");
  return scripted::module(stem).allUpdateDoneResult;
}

SCRIPT_ENTRY int scripted_doUpdate_decryption(const char* stem, const unsigned char* data, int length) {
  scripted::note(stem, "doUpdate_decryption(" + std::to_string(length) + ")");
  scripted::Module& module = scripted::module(stem);
  const int result =
      module.doUpdateDecryption ? module.doUpdateDecryption(data, length) : module.doUpdateDecryptionResult;
  if (module.errorNumber != 0) {
    errno = module.errorNumber;
  }
  return result;
}

SCRIPT_ENTRY int scripted_getExpectedTime(const char* stem, int* seconds) {
  scripted::note(stem, "getExpectedTime()");
  *seconds = scripted::module(stem).expectedTime;
  return scripted::module(stem).expectedTimeResult;
}

SCRIPT_ENTRY int scripted_getUpdateProgress(const char* stem, unsigned int* progress) {
  scripted::note(stem, "getUpdateProgress()");
  *progress = scripted::module(stem).progress;
  return scripted::module(stem).progressResult;
}
