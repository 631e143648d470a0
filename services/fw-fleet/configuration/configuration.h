// SPDX-License-Identifier: Apache-2.0
// Which server the set asks for updates, how it shows who it is, and what it may do:
// /etc/fw-update/fw-fleet.conf. Plain values and functions; any thread.
#ifndef FW_FLEET_CONFIGURATION_H
#define FW_FLEET_CONFIGURATION_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "next-step.h"
#include "setting-lines.h"

namespace fleet {

inline constexpr char kConfigurationFile[] = "/etc/fw-update/fw-fleet.conf";

enum class SourceType {
  Server,
  List,  // a signed list in a directory
};

enum class TokenType {
  None,
  Target,   // of this set alone
  Gateway,  // of all sets of a tenant
};

enum class ConfirmPolicy { Ask, Yes, No };

struct Configuration {
  SourceType source = SourceType::Server;
  std::string list;    // its address
  std::string server;  // without a "/" at its end; of a list, the one that has it
  std::string tenant = "DEFAULT";
  std::string controller;  // who the set is, for the server
  std::string serial;      // of the set; empty: the server is told none
  TokenType tokenType = TokenType::None;
  std::string tokenFile;
  std::string caFile;  // empty: the certificates of the system
  std::string clientCertificate;
  std::string clientKey;
  bool allowInsecure = false;      // connections that anybody on the way can change
  std::chrono::seconds poll{300};  // when the server names no interval
  ConsentPolicy consent = ConsentPolicy::Never;
  ConfirmPolicy confirm = ConfirmPolicy::Ask;
  std::int64_t bytesPerSecond = 0;  // of a download; 0: as many as there are
  std::int64_t largestArtifact = std::int64_t{512} << 20;
  std::int64_t largestAction = 4 * largestArtifact;  // all that is downloaded for it
  long stallSeconds = 30;  // that a server is waited for that sends nothing; no setting
};

using ConfigurationProblem = base::SettingProblem;

// With a problem nothing of it is to be used: an entry that counts for nothing could have the set
// trust another server, or show itself to one.
struct ConfigurationRead {
  Configuration configuration;
  std::vector<ConfigurationProblem> problems;
};

ConfigurationRead parseConfiguration(const std::string& content);
// The files that it names for TLS must be there, too; what is in them is not looked at.
ConfigurationRead readConfiguration(const std::string& path = kConfigurationFile);

using base::textOf;

}  // namespace fleet

#endif
