// SPDX-License-Identifier: Apache-2.0
// Parsing of "info.json", the description beside a firmware image.
#ifndef INFORMATION_FILE_H
#define INFORMATION_FILE_H

#include <json/json.h>

#include <string>

// The file's root. False for anything but a regular file of at most 64 KiB that holds
// an object whose "version" can be a text; no exception of the parser leaves it.
bool parseInformation(const std::string& path, Json::Value& root);

#endif
