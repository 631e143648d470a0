// SPDX-License-Identifier: Apache-2.0
// Who may do what: polkit decides where it runs, and groups where it does not. The user that
// the service runs as, and root, may do everything. Answers come later; one thread.
#ifndef SERVICES_ACCESS_H
#define SERVICES_ACCESS_H

#include <sdbus-c++/sdbus-c++.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace service {

// What somebody wants to do. A constant.
struct Permission {
  const char* id = "";          // polkit's
  const char* words = "";       // "may not ..."
  bool isForEverybody = false;  // without polkit
  const char* group = "";       // whose members may, too; administrators may all
  // How often one user may wait for polkit's answer; 0: as often as all together.
  std::size_t mostOfOneUser = 0;
};

struct Client {
  std::string name;  // unique on the bus
  uid_t user = 0;
  std::vector<gid_t> groups;
};

class Access {
 public:
  using Allowed = std::function<void(const Client& client)>;
  using Refused = std::function<void(const sdbus::Error& error)>;

  // interface: errors are called "INTERFACE.Error.NotPermitted" and "INTERFACE.Error.TooMany".
  Access(sdbus::IConnection& connection, std::string interface);

  // One of the two is called, once. owner: of what is acted upon, who may without being asked.
  void ask(const std::string& client, const Permission& permission, Allowed allowed, Refused refused,
           std::optional<uid_t> owner = std::nullopt);

 private:
  struct Question;
  using Waiting = std::map<std::pair<const Permission*, uid_t>, std::size_t>;

  void identify(const std::shared_ptr<Question>& question);
  void decide(const std::shared_ptr<Question>& question);
  void askPolkit(const std::shared_ptr<Question>& question);

  const std::string interface_;
  const std::unique_ptr<sdbus::IProxy> bus_;
  const std::unique_ptr<sdbus::IProxy> polkit_;
  std::size_t open_ = 0;
  Waiting waiting_;
};

}  // namespace service

#endif
