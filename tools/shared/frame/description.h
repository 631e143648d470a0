// SPDX-License-Identifier: Apache-2.0
// A program's tables as a JSON document: manual pages and completions are made from it.
#ifndef TOOLS_SHARED_FRAME_DESCRIPTION_H
#define TOOLS_SHARED_FRAME_DESCRIPTION_H

#include <json/value.h>

#include "frame/command-line.h"

namespace frame {

// The one that a command line without a command's name means: the last, where there are others. May be null.
const BoundCommand* ownOf(const BoundProgram& program);

Json::Value descriptionOf(const BoundProgram& program);

// On standard output.
void putDescription(const BoundProgram& program);

}  // namespace frame

#endif
