// SPDX-License-Identifier: Apache-2.0
// Who brings artifacts into components, as the fleet's client sees it: the update service, or what
// stands for it in tests. A component is named by its firmware, as the server names software modules.
// One thread.
#ifndef FW_FLEET_INSTALLER_H
#define FW_FLEET_INSTALLER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "action.h"

namespace fleet {

// What the artifacts of a component are.
enum class Kind {
  Package,  // an extension package
  Usb,      // an encrypted package, as on a USB drive
  Image,    // an image with its info.json
};

struct InstallFile {
  std::string name;     // of the artifact, for people: never a path
  int descriptor = -1;  // the caller's, open for reading at any place; not closed
};

// Nobody answers: asked again later it may be another answer. what() is a sentence.
struct InstallerAway : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// It answers, and says for sure that nothing was begun.
struct InstallerBusy : InstallerAway {
  using InstallerAway::InstallerAway;
};

// Why it was not taken; an empty sentence: it was, and there is a job for it.
struct HandedOver {
  std::string sentence;
  std::string remedy;
};

struct Followed {
  std::optional<JobEnd> end;  // none: the job is still waiting or at work
  std::string sentence;       // of its end, when it failed
  std::string remedy;
};

// Every operation throws InstallerAway.
class Installer {
 public:
  virtual ~Installer() = default;

  // What it reports, and that may be empty. None: the set has no such component.
  virtual std::optional<std::string> versionOf(const std::string& component) = 0;
  // Of all components of the set, by their names.
  virtual std::map<std::string, std::string> versions() = 0;
  // Returns once there is a job, before its work begins. The files may be closed and removed then.
  virtual HandedOver ask(const std::string& component, Kind kind, const std::vector<InstallFile>& files) = 0;
  // Of the newest job of this user for the component that is over; 0: there is none.
  virtual std::uint64_t lastEnded(const std::string& component) = 0;
  // The newest job that this user has for the component, whichever of its processes asked for it, of those
  // that came after the one of this number. Waits so long at most for its end; JobEnd::Unknown when there is
  // no such job, or it was interrupted.
  virtual Followed follow(const std::string& component, std::uint64_t after,
                          std::chrono::milliseconds patience) = 0;
};

}  // namespace fleet

#endif
