// SPDX-License-Identifier: Apache-2.0
// What /etc/fw-update/history.conf says about the history. A plain value; read by any thread.
#ifndef FW_HISTORY_SETTINGS_H
#define FW_HISTORY_SETTINGS_H

#include <string>

namespace history {

inline constexpr char kSettingsFile[] = "/etc/fw-update/history.conf";
inline constexpr char kDirectory[] = "/var/lib/fw-update";

struct Settings {
  std::string directory = kDirectory;
  int mostEntries = 1000;
  int mostKib = 4096;
  std::string metrics;  // the file for them; empty: none is written
  // How long a call waits for another process. Nobody sits before a job of the update service.
  int mostBusyMs = 300;
};

struct SettingsRead {
  Settings settings;    // the defaults where a line is wrong
  std::string problem;  // the first one, by its line; empty when there is none
};

// The defaults when there is no such file.
SettingsRead readSettings(const std::string& path = kSettingsFile);

}  // namespace history

#endif
