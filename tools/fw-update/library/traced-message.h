// SPDX-License-Identifier: Apache-2.0
// A message that another process left in its trace, as if the library had logged it here.
#ifndef FW_UPDATE_LIBRARY_TRACED_MESSAGE_H
#define FW_UPDATE_LIBRARY_TRACED_MESSAGE_H

#include "library/library-log.h"
#include "message.h"

namespace tool {

LogMessage messageOf(const tracetool::Message& traced);

}  // namespace tool

#endif
