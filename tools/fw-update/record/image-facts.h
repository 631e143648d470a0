// SPDX-License-Identifier: Apache-2.0
// Which image an update takes, for the history: read before the update, since one that
// succeeds may use the image up. Plain functions; what cannot be read stays empty.
#ifndef FW_UPDATE_TOOL_IMAGE_FACTS_H
#define FW_UPDATE_TOOL_IMAGE_FACTS_H

#include <optional>
#include <string>

#include "entry.h"
#include "fw-update-types.h"
#include "image-information.h"

namespace tool {

// Where the images of a request lie; the firmware's name is the entry's.
void addImageFacts(history::Entry& entry, UPDATE_TYPE place);
// What "info.json" says of the image of such a request; nothing when it is not to be read. The
// library mounts an extension package when it is asked whether it is needed, and leaves it mounted.
std::optional<image::Information> offeredImage(const std::string& firmware, UPDATE_TYPE place);
// Of an encrypted package on a drive.
void addPackageFacts(history::Entry& entry, const std::string& package);

}  // namespace tool

#endif
