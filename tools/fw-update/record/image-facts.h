// SPDX-License-Identifier: Apache-2.0
// Which image an update takes, for the history: read before the update, since one that
// succeeds may use the image up. Plain functions; what cannot be read stays empty.
#ifndef FW_UPDATE_TOOL_IMAGE_FACTS_H
#define FW_UPDATE_TOOL_IMAGE_FACTS_H

#include <string>

#include "entry.h"
#include "fw-update-types.h"

namespace tool {

// Where the images of a request lie; the firmware's name is the entry's.
void addImageFacts(history::Entry& entry, UPDATE_TYPE place);
// Of an encrypted package on a drive.
void addPackageFacts(history::Entry& entry, const std::string& package);

}  // namespace tool

#endif
