// SPDX-License-Identifier: Apache-2.0
// Where actions are kept: ID.action, a file each, old or new and never a part, also after a power cut.
// Owns no open file. One process, one thread.
#ifndef FW_FLEET_ACTION_FILES_H
#define FW_FLEET_ACTION_FILES_H

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "action.h"

namespace fleet {

// Why the text is no action. One of a newer program is left as it is.
enum class Unusable { Damaged, Newer };

std::string textOf(const Action& action);
std::variant<Action, Unusable> parseAction(const std::string& text);

// Of the action's file: the server's identity leads nowhere.
std::string fileNameOf(const std::string& id);

struct KeptActions {
  std::vector<Action> actions;     // in the order they came
  std::vector<std::string> newer;  // paths
  std::vector<std::string> setAside;
};

class ActionFiles {
 public:
  // Makes the directory, for this user alone. Throws std::system_error.
  explicit ActionFiles(std::string directory = "/var/lib/fw-fleet/actions");

  // 0 or an errno value. What the action stands for is not to be done before this is 0.
  int keep(const Action& action) const;
  // What is damaged gets another name, so that it can be looked at. What an earlier program kept too much of
  // gets smaller. Throws std::system_error.
  KeptActions load() const;
  // The oldest that are over and reported, beyond so many of them.
  void prune(const std::vector<Action>& actions, std::size_t most) const;

 private:
  const std::string directory_;
};

}  // namespace fleet

#endif
