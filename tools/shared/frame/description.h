// SPDX-License-Identifier: Apache-2.0
// A program's tables as a JSON document: manual pages and completions are made from it.
#ifndef TOOLS_SHARED_FRAME_DESCRIPTION_H
#define TOOLS_SHARED_FRAME_DESCRIPTION_H

#include <json/value.h>

#include "frame/command-line.h"

namespace frame {

Json::Value descriptionOf(const BoundProgram& program);

// On standard output.
void putDescription(const BoundProgram& program);

}  // namespace frame

#endif
