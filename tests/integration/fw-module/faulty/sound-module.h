// SPDX-License-Identifier: Apache-2.0
// A module without a fault, for modules with just one: each defines OWN_ and the name of
// an entry point for what it writes itself, and includes this first.
#ifndef FAULTY_SOUND_MODULE_H
#define FAULTY_SOUND_MODULE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "dlog.h"
#include "fw-update-module.h"

namespace sound {

inline constexpr char kFlash[] = "/var/lib/fw-components/soundfw.firmware";
inline constexpr char kNewFlash[] = "/var/lib/fw-components/soundfw.firmware.new";

inline std::mutex mutex;
inline std::string checkedVersion;  // guarded by mutex
inline std::atomic<unsigned int> percent{0};

inline std::string library;  // guarded by mutex

inline void keepName(const char* name) {
  const std::lock_guard<std::mutex> lock(mutex);
  library = name;
}

// OWN_reason: it fails without a word.
inline int failure(int error) {
#ifndef OWN_reason
  const std::lock_guard<std::mutex> lock(mutex);
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: %s", library.c_str(), std::strerror(error));
#endif
  errno = error;
  return -error;
}

inline bool readFile(const std::string& path, std::string& content) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  content = text.str();
  return file.is_open();
}

inline std::string activeVersion() {
  std::ifstream flash(kFlash, std::ios::binary);
  std::string version;
  return std::getline(flash, version) ? version : "0.0.0";
}

inline bool isVersion(const std::string& text) {
  return !text.empty() && text.size() < 128 && text.find_first_not_of("0123456789.") == std::string::npos;
}

inline std::uint32_t crcOf(const std::string& bytes) {
  std::uint32_t crc = 0;
  for (const char byte : bytes) {
    crc ^= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << 24;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x80000000U) != 0 ? (crc << 1) ^ 0x01B23CA3U : crc << 1;
    }
  }
  return crc;
}

inline int checkVersion(const char* version, int* need) {
  if (!isVersion(version)) {
    return failure(EINVAL);
  }
  *need = strverscmp(version, activeVersion().c_str()) > 0 ? 1 : 0;
  const std::lock_guard<std::mutex> lock(mutex);
  checkedVersion = version;
  return 0;
}

inline std::string versionToWrite() {
  const std::lock_guard<std::mutex> lock(mutex);
  return checkedVersion;
}

// Of the image at path; empty when it is not stated.
inline std::string statedVersion(const std::string& path) {
  std::string information;
  readFile(path.substr(0, path.rfind('/') + 1) + "info.json", information);
  const std::size_t colon = information.find(':', information.find("\"version\""));
  const std::size_t begin = information.find('"', colon);
  return begin == std::string::npos
             ? ""
             : information.substr(begin + 1, information.find('"', begin + 1) - begin - 1);
}

// Makes content the active firmware, in one step.
inline int activate(const std::string& content, const std::string& version) {
  std::ofstream flash(kNewFlash, std::ios::binary | std::ios::trunc);
  flash << version << '\n' << content;
  flash.close();
  if (flash && std::rename(kNewFlash, kFlash) == 0) {
    return 0;
  }
  std::remove(kNewFlash);
  return failure(ENOSPC);
}

inline int update(const std::string& path, unsigned long crc) {
  percent = 0;
  std::string image;
  if (!readFile(path, image)) {
    return failure(ENOENT);
  }
  percent = 50;
  if (image.empty() || crcOf(image) != crc) {
    return failure(EBADMSG);
  }
  if (const int result = activate(image, statedVersion(path)); result != 0) {
    return result;
  }
  percent = 100;
  return 0;
}

}  // namespace sound

#ifndef OWN_setContext
int setContext(const char* libName, CallerTypes, char*) {
  sound::keepName(libName);
  return 0;
}
#endif

#ifndef OWN_getEMPID
int getEMPID(char* out) {
  std::strcpy(out, "soundempfw");
  return 0;
}
#endif

#ifndef OWN_getActiveVersion
int getActiveVersion(char* out) {
  std::snprintf(out, 128, "%s", sound::activeVersion().c_str());
  return 0;
}
#endif

#ifndef OWN_checkVersion
int checkVersion(const char* version, int* need) {
  return sound::checkVersion(version, need);
}
#endif

#ifndef OWN_doUpdate
int doUpdate(const char* path, unsigned long value) {
  return sound::update(path, value);
}
#endif

#ifndef OWN_allUpdateDone
int allUpdateDone() {
  return 0;
}
#endif

#ifndef OWN_doUpdate_decryption
int doUpdate_decryption(const unsigned char* data, int length) {
  if (length <= 0) {
    return sound::failure(ENODATA);
  }
  return sound::activate({reinterpret_cast<const char*>(data), static_cast<std::size_t>(length)},
                         sound::versionToWrite());
}
#endif

#ifndef OWN_getExpectedTime
int getExpectedTime(int* seconds) {
  *seconds = 30;
  return 0;
}
#endif

#ifndef OWN_getUpdateProgress
int getUpdateProgress(unsigned int* progress) {
  *progress = sound::percent;
  return 0;
}
#endif

#endif
