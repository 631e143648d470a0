/* SPDX-License-Identifier: Apache-2.0 */
/* The page that shows a timeline, and the library that draws it, as bytes. */
  .section .rodata
  .global fwTracePage
  .global fwTracePageEnd
  .global fwTraceD3
  .global fwTraceD3End
fwTracePage:
  .incbin FW_TRACE_PAGE
fwTracePageEnd:
fwTraceD3:
  .incbin FW_TRACE_D3
fwTraceD3End:
  .section .note.GNU-stack, "", %progbits
