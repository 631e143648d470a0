// SPDX-License-Identifier: Apache-2.0
// Who may do what: polkit decides where it runs, and groups where it does not. The user that
// the service runs as, and root, may do everything. Answers come later; one thread.
#ifndef FW_UPDATED_ACCESS_H
#define FW_UPDATED_ACCESS_H

#include <sdbus-c++/sdbus-c++.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace updated {

enum class Action { Query, Update, Usb, Cancel, Configure, Consent };

struct Client {
  std::string name;  // unique on the bus
  uid_t user = 0;
  std::vector<gid_t> groups;
};

class Access {
 public:
  using Allowed = std::function<void(const Client& client)>;
  using Refused = std::function<void(const sdbus::Error& error)>;

  explicit Access(sdbus::IConnection& connection);

  // One of the two is called, once. owner: of what is acted upon, who may without being asked.
  void ask(const std::string& client, Action action, Allowed allowed, Refused refused,
           std::optional<uid_t> owner = std::nullopt);

 private:
  struct Question;

  void identify(const std::shared_ptr<Question>& question);
  void decide(const std::shared_ptr<Question>& question);
  void askPolkit(const std::shared_ptr<Question>& question);

  const std::unique_ptr<sdbus::IProxy> bus_;
  const std::unique_ptr<sdbus::IProxy> polkit_;
  std::size_t open_ = 0;
};

}  // namespace updated

#endif
