// SPDX-License-Identifier: Apache-2.0
// A real module library whose behaviour a test sets in its own process. The test
// installs it under any name (installScriptedModule); each entry point then calls
// back into the test's ScriptedModule of that name, which notes the call and
// answers.
#ifndef SCRIPTED_MODULE_H
#define SCRIPTED_MODULE_H

#include <functional>
#include <string>

namespace scripted {

struct Module {
  std::string empId = "abcemp";
  std::string activeVersion = "1.0";
  int setContextResult = 0;
  int activeVersionResult = 0;
  int checkVersionResult = 0;
  int need = 1;
  int doUpdateResult = 0;
  int errorNumber = 0;  // errno that doUpdate leaves
  int allUpdateDoneResult = 0;
  int expectedTimeResult = 0;
  int expectedTime = 1;
  int progressResult = 0;
  unsigned int progress = 42;
  int doUpdateDecryptionResult = 0;

  // When set, these run in place of the plain answers; buffers as the module gets
  // them.
  std::function<void(char* out)> writeEMPID;
  std::function<int(char* out)> writeActiveVersion;
  std::function<int(const char* path, unsigned long value)> doUpdate;
  std::function<int(const unsigned char* data, int length)> doUpdateDecryption;
  std::function<int(const char* version, int* need)> checkVersion;
  std::function<int(const char* libName, int caller, char* data)> setContext;
};

// The script of the module with this stem; made on first use. Calls of entry points
// are noted in the recording platform's list as "stem.entryPoint(arguments)".
Module& module(const std::string& stem);
void resetModules();

// Copies the module library, or the variant that lacks one entry point, into the
// controls directory as stem + ".so".
void installModule(const std::string& stem, const std::string& without = "");
// A library that lacks this entry point and all that are bound after it, the optional
// ones included.
void installModuleUntil(const std::string& stem, const std::string& entryPoint);
// A library with every entry point that calls a function that nobody defines.
void installUnresolvedModule(const std::string& stem);

}  // namespace scripted

#endif
