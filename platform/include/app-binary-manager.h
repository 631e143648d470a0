// Downloads of extension packages.
#ifndef PLATFORM_APP_BINARY_MANAGER_H
#define PLATFORM_APP_BINARY_MANAGER_H

#include <string>

namespace appbinaryManager {

// Asks for the download of the package appId to
// "/opt/usr/apps/appbinarymanager/" + appId + ".img" and returns at once: true
// when the request was accepted; a download of the same package that is under way
// serves it too. callback may be null; it is never called, because nothing in the
// caller's process waits for the download.
__attribute__((visibility("default"))) bool ABM_DownloadAppBinary(void (*callback)(const std::string&, int,
                                                                                   void*),
                                                                  void* userData, const std::string& appId);

}  // namespace appbinaryManager

#endif
