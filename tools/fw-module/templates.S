/* SPDX-License-Identifier: Apache-2.0 */
/* The files of a new module's project, as bytes. */
.macro template symbol, path
  .global \symbol
  .global \symbol\()End
\symbol:
  .incbin "\path"
\symbol\()End:
.endm

  .section .rodata
  template fwModuleBuild, "CMakeLists.txt"
  template fwModuleReadme, "README.md"
  template fwModuleExports, "exports.map"
  template fwModuleDeviceTest, "update-on-a-device"
  template fwModuleCComponentHeader, "c/component.h"
  template fwModuleCComponent, "c/component.c"
  template fwModuleCReason, "c/reason.h"
  template fwModuleCModule, "c/module.c"
  template fwModuleCExtModule, "c/ext-module.c"
  template fwModuleCppComponentHeader, "c++/component.h"
  template fwModuleCppComponent, "c++/component.cpp"
  template fwModuleCppReason, "c++/reason.h"
  template fwModuleCppModule, "c++/module.cpp"
  template fwModuleCppExtModule, "c++/ext-module.cpp"
  .section .note.GNU-stack, "", %progbits
