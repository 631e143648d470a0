// SPDX-License-Identifier: Apache-2.0
// What strangers send: each function throws an error with a sentence for what no client that
// knows the interface sends. Pure.
#ifndef FW_UPDATED_REQUEST_CHECK_H
#define FW_UPDATED_REQUEST_CHECK_H

#include <string>
#include <vector>

namespace updated {

void checkModule(const std::string& module);
// Empty stands for the usual one, here and for folders.
void checkCaller(const std::string& caller, const std::string& data);
void checkFolder(const std::string& folder);

// The words for fw-update of a command that changes nothing.
std::vector<std::string> queryWords(const std::string& command, const std::vector<std::string>& arguments);

}  // namespace updated

#endif
