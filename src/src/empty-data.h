// SPDX-License-Identifier: Apache-2.0
// The data of a request that has none: a text that every module may write into and may
// keep, as some do. It is therefore one of the module's own, so that no other module
// reads what it wrote, and stays for good, because a module may outlive the record that
// asked it. Any thread.
#ifndef EMPTY_DATA_H
#define EMPTY_DATA_H

#include <string>

// Empty again, whatever the module wrote, and 128 bytes long. The same for each call with
// this library name.
char* emptyDataOf(const std::string& libName);

#endif
