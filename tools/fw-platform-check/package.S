/* SPDX-License-Identifier: Apache-2.0 */
/* The package that is mounted for a check, as bytes. */
  .section .rodata
  .global fwPlatformCheckPackage
  .global fwPlatformCheckPackageEnd
fwPlatformCheckPackage:
  .incbin FW_PLATFORM_CHECK_PACKAGE
fwPlatformCheckPackageEnd:
  .section .note.GNU-stack, "", %progbits
