// SPDX-License-Identifier: Apache-2.0
// The "info.json" that lies beside an image. What it states holds for that image, whatever
// version the module was asked about meanwhile. Safe from any thread.
#ifndef MODULES_COMMON_IMAGE_INFORMATION_H
#define MODULES_COMMON_IMAGE_INFORMATION_H

#include <json/value.h>

#include <string>

namespace fwcomponent {

std::string informationBeside(const std::string& imagePath);

// An object. Throws std::system_error: EBADMSG for what is none.
Json::Value readInformation(const std::string& path);

// The version of the image at imagePath, as the update library reads it. Throws
// std::system_error: EINVAL for what is no version.
std::string versionOfImage(const std::string& imagePath);

}  // namespace fwcomponent

#endif
