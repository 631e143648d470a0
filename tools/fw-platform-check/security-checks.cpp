// SPDX-License-Identifier: Apache-2.0
// What a set must have set up so that nothing unsigned is used. Each finding ends with
// what to do.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "checks.h"
#include "key-lists.h"
#include "minimum-versions.h"
#include "mount-table.h"
#include "public-keys.h"

namespace conformance {
namespace {

namespace fs = std::filesystem;

constexpr const char* kVerifierPath = "/usr/lib/libkZAQUser.so";
constexpr const char* kPackageKey = "/usr/share/fw-update/package.key";
constexpr const char* kDownloadConfiguration = "/etc/fw-update/download.conf";
constexpr const char* kUsbDrive = "/opt/media/USBDriveA";

// What updates rely on, with all that leads there and lies directly in it.
constexpr const char* kTrustedPlaces[] = {
    "/prd/usr/fwupdate/controls",
    "/lib/firmware/ext",
    "/opt/usr/share/sbox",
    "/opt/usr/apps/appbinarymanager",
    "/opt/usr/apps/appbinarymanager/emps",
    kVerifierPath,
    fwpackage::kKeyDirectory,
    fwpackage::kMinimumVersionDirectory,
    kPackageKey,
    kDownloadConfiguration,
};

// ---- Who can write -------------------------------------------------------------------

// Empty when only root can; else who else, and what to do.
std::string othersWhoWrite(const fs::path& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) {
    return "";
  }
  const std::string remedy = "; chown root " + path.string() + " and chmod go-w " + path.string();
  if (status.st_uid != 0) {
    return path.string() + " belongs to user " + std::to_string(status.st_uid) + remedy;
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    return path.string() + " can be written by everybody" + remedy;
  }
  if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0) {
    return path.string() + " can be written by group " + std::to_string(status.st_gid) + remedy;
  }
  return "";
}

// The place with all links resolved, what leads there, and what lies in it.
std::vector<fs::path> pathsOf(const char* place) {
  std::error_code ignored;
  const fs::path real = fs::canonical(place, ignored);
  if (ignored) {
    return {};
  }
  std::vector<fs::path> paths;
  fs::path leading;
  for (const fs::path& part : real) {
    paths.push_back(leading /= part);
  }
  for (const auto& entry : fs::directory_iterator(real, ignored)) {
    paths.push_back(entry.path());
  }
  return paths;
}

// ---- Mounts --------------------------------------------------------------------------

std::vector<base::Mount> usbMounts() {
  std::vector<base::Mount> mounts = base::mounts();
  mounts.erase(std::remove_if(mounts.begin(), mounts.end(),
                              [](const base::Mount& mount) { return mount.place.rfind(kUsbDrive, 0) != 0; }),
               mounts.end());
  return mounts;
}

// ---- Settings ------------------------------------------------------------------------

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::vector<fwpackage::KeyId> knownKeys() {
  std::vector<fwpackage::KeyId> keys;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(fwpackage::kKeyDirectory, ignored)) {
    if (entry.path().extension() == ".pem") {
      if (const fwpackage::Key key = fwpackage::readPublicKey(entry.path())) {
        keys.push_back(fwpackage::keyIdOf(key.get()));
      }
    }
  }
  return keys;
}

fwpackage::Listed listed(const char* list, const fwpackage::KeyId& key) {
  return fwpackage::findInList(std::string(fwpackage::kKeyDirectory) + "/" + list, key);
}

std::string unusable(const char* list) {
  return std::string(fwpackage::kKeyDirectory) + "/" + list +
         " cannot be read or has a wrong line, so that packages are refused; write one identifier of 16 "
         "hexadecimal digits a line";
}

}  // namespace

Finding secureVerifierJudgesContent() {
  void* const library = dlopen(kVerifierPath, RTLD_NOW);  // stays open as long as the process
  if (library == nullptr) {
    return broken(std::string(kVerifierPath) + " cannot be used: every package is taken; install it");
  }
  for (const char* entry :
       {"beginContentCheck", "addCheckedContent", "endContentCheck", "releaseContentCheck"}) {
    if (dlsym(library, entry) == nullptr) {
      return broken(std::string(kVerifierPath) + " has no " + entry +
                    ": a package can change after it was verified; install a verification library with the "
                    "content check");
    }
  }
  return kept();
}

Finding secureSetHasKey() {
  if (knownKeys().empty()) {
    return broken(std::string(fwpackage::kKeyDirectory) +
                  " has no public key: no signed package can be used; install the maker's key there, as "
                  "NAME.pem");
  }
  return kept();
}

Finding secureKeysSignNewFormatAlone() {
  for (const fwpackage::KeyId& key : knownKeys()) {
    const fwpackage::Listed revoked = listed(fwpackage::kRevokedList, key);
    const fwpackage::Listed mayUseOldFormat = listed(fwpackage::kOldFormatList, key);
    if (revoked == fwpackage::Listed::Unusable) {
      return broken(unusable(fwpackage::kRevokedList));
    }
    if (mayUseOldFormat == fwpackage::Listed::Unusable) {
      return broken(unusable(fwpackage::kOldFormatList));
    }
    if (revoked == fwpackage::Listed::No && mayUseOldFormat == fwpackage::Listed::Yes) {
      return broken("the key " + fwpackage::toHex(key.data(), key.size()) +
                    " may sign packages of format 1, which fit every component; sign them anew and take it "
                    "out of " +
                    fwpackage::kKeyDirectory + "/" + fwpackage::kOldFormatList);
    }
  }
  return kept();
}

Finding secureOnlyRootWrites() {
  for (const char* place : kTrustedPlaces) {
    for (const fs::path& path : pathsOf(place)) {
      if (const std::string sentence = othersWhoWrite(path); !sentence.empty()) {
        return broken(sentence);
      }
    }
  }
  return kept();
}

Finding securePackageKeyIsSecret() {
  struct stat status = {};
  if (stat(kPackageKey, &status) != 0) {
    return errno == ENOENT ? notChecked("there is no " + std::string(kPackageKey))
                           : notChecked(std::string(kPackageKey) + ": " + std::strerror(errno));
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return broken(std::string(kPackageKey) + " can be read by others than root; chmod 600 " + kPackageKey);
  }
  return kept();
}

Finding secureDownloadsAreSigned() {
  std::ifstream file(kDownloadConfiguration);
  if (!file) {
    return fs::exists(kDownloadConfiguration)
               ? notChecked(std::string(kDownloadConfiguration) + " cannot be read")
               : notChecked("nothing is downloaded");
  }
  for (std::string line; std::getline(file, line);) {
    const std::string text = line.substr(0, line.find('#'));
    const auto equals = text.find('=');
    const std::string key = trimmed(text.substr(0, equals));
    const std::string value = equals == std::string::npos ? "" : trimmed(text.substr(equals + 1));
    if ((key == "allow_unsigned" || key == "allow_insecure") && value != "false") {
      return broken(std::string(kDownloadConfiguration) + " has " + key + "; remove the line, and " +
                    (key == "allow_unsigned" ? "sign the packages with fw-pack" : "serve them over https"));
    }
  }
  return kept();
}

Finding secureDrivesAreReadOnly() {
  const std::vector<base::Mount> mounts = usbMounts();
  for (const base::Mount& mount : mounts) {
    for (const char* option : {"ro", "nosuid", "nodev", "noexec"}) {
      if (!base::hasOption(mount.options, option) && !base::hasOption(mount.fileSystemOptions, option)) {
        return broken(mount.place + " is not mounted with " + option +
                      "; have drives mounted with ro,nosuid,nodev,noexec");
      }
    }
  }
  return mounts.empty() ? notChecked("no drive is mounted; plug one in") : kept();
}

}  // namespace conformance
