// The component that the module serves: which firmware is active on it, and how new
// firmware gets there. This one is a file, so that the module runs anywhere; put what
// talks to your hardware into component.cpp. All functions may be called from any
// thread; they return 0, or a negative errno value.
#ifndef COMPONENT_H
#define COMPONENT_H

#include <string>

namespace component {

int readVersion(std::string& version);

// Writes the image at path, whose CRC-32 is crc. The old firmware stays active and whole
// until all of the new one is there, and after a failure.
int update(const std::string& path, unsigned long crc, const std::string& version);

// 0 to 100, of the update that runs or that ran last in this process.
unsigned int progress();

}  // namespace component

#endif
