// SPDX-License-Identifier: Apache-2.0
#include "access.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

namespace service {
namespace {

using Variants = std::map<std::string, sdbus::Variant>;

constexpr char kAdministrators[] = "fwupdate-admin";
constexpr char kTooMany[] = "Too many requests wait already. Try again.";
constexpr std::size_t kMostOpen = 256;
constexpr std::uint64_t kPatienceUs = 30'000'000;

// There is no polkit on this bus, or it is switched off.
bool isAbsent(const sdbus::Error& error) {
  constexpr const char* kAbsent[] = {
      "org.freedesktop.DBus.Error.ServiceUnknown",
      "org.freedesktop.DBus.Error.NameHasNoOwner",
      "org.freedesktop.systemd1.NoSuchUnit",
      "org.freedesktop.systemd1.UnitMasked",
  };
  return std::find(std::begin(kAbsent), std::end(kAbsent), error.getName()) != std::end(kAbsent);
}

bool isIn(const Client& client, const char* name) {
  const group* const entry = getgrnam(name);
  return entry != nullptr &&
         std::find(client.groups.begin(), client.groups.end(), entry->gr_gid) != client.groups.end();
}

bool groupsAllow(const Client& client, const Permission& permission) {
  return permission.isForEverybody || isIn(client, kAdministrators) || isIn(client, permission.group);
}

// Where the bus does not tell them: as the user would log in.
std::vector<gid_t> groupsOf(uid_t user) {
  const passwd* const entry = getpwuid(user);
  int count = 256;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (entry == nullptr || getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) {
    return {};
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

bool readCredentials(Client& client, const Variants& credentials) {
  const auto user = credentials.find("UnixUserID");
  if (user == credentials.end() || !user->second.containsValueOfType<std::uint32_t>()) {
    return false;
  }
  client.user = user->second.get<std::uint32_t>();
  const auto groups = credentials.find("UnixGroupIDs");
  if (groups != credentials.end() && groups->second.containsValueOfType<std::vector<std::uint32_t>>()) {
    client.groups = groups->second.get<std::vector<std::uint32_t>>();
  } else {
    client.groups = groupsOf(client.user);
  }
  return true;
}

}  // namespace

struct Access::Question {
  Question(std::size_t& count, Waiting& those, const Permission& wanted)
      : open(count), waiting(those), permission(wanted) {
    ++open;
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  ~Question() {
    --open;
    if (isWaiting && --waiting[key()] == 0) {
      waiting.erase(key());
    }
  }

  Waiting::key_type key() const { return {&permission, client.user}; }

  void answer(bool yes) const {
    if (yes) {
      allowed(client);
    } else {
      refused(sdbus::Error(interface + ".Error.NotPermitted",
                           std::string("This user may not ") + permission.words +
                               ". Root may, and the members of the group " + permission.group + "."));
    }
  }

  std::size_t& open;
  Waiting& waiting;
  bool isWaiting = false;  // for polkit
  const Permission& permission;
  std::string interface;
  Client client;
  Allowed allowed;
  Refused refused;
  std::optional<uid_t> owner;
};

Access::Access(sdbus::IConnection& connection, std::string interface)
    : interface_(std::move(interface)),
      bus_(sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")),
      polkit_(sdbus::createProxy(connection, "org.freedesktop.PolicyKit1",
                                 "/org/freedesktop/PolicyKit1/Authority")) {}

void Access::ask(const std::string& client, const Permission& permission, Allowed allowed, Refused refused,
                 std::optional<uid_t> owner) {
  if (open_ >= kMostOpen) {
    refused(sdbus::Error(interface_ + ".Error.TooMany", kTooMany));
    return;
  }
  const auto question = std::make_shared<Question>(open_, waiting_, permission);
  question->interface = interface_;
  question->client.name = client;
  question->allowed = std::move(allowed);
  question->refused = std::move(refused);
  question->owner = owner;
  identify(question);
}

// By what the bus knows of the client's connection: a process may have become another since.
void Access::identify(const std::shared_ptr<Question>& question) {
  bus_->callMethodAsync("GetConnectionCredentials")
      .onInterface("org.freedesktop.DBus")
      .withTimeout(kPatienceUs)
      .withArguments(question->client.name)
      .uponReplyInvoke([this, question](const sdbus::Error* error, const Variants& credentials) {
        if (error != nullptr || !readCredentials(question->client, credentials)) {
          question->answer(false);
        } else {
          decide(question);
        }
      });
}

void Access::decide(const std::shared_ptr<Question>& question) {
  const uid_t user = question->client.user;
  if (user == 0 || user == geteuid() || question->owner == user) {
    question->answer(true);
    return;
  }
  const std::size_t most = question->permission.mostOfOneUser;
  if (most != 0 && waiting_[question->key()] >= most) {
    question->refused(sdbus::Error(interface_ + ".Error.TooMany", kTooMany));
    return;
  }
  question->isWaiting = true;
  ++waiting_[question->key()];
  askPolkit(question);
}

// Nobody is asked for a password: a client that wants that asks polkit itself, before.
void Access::askPolkit(const std::shared_ptr<Question>& question) {
  using Subject = sdbus::Struct<std::string, Variants>;
  using Result = sdbus::Struct<bool, bool, std::map<std::string, std::string>>;
  const Subject subject("system-bus-name", {{"name", sdbus::Variant(question->client.name)}});
  polkit_->callMethodAsync("CheckAuthorization")
      .onInterface("org.freedesktop.PolicyKit1.Authority")
      .withTimeout(kPatienceUs)
      .withArguments(subject, std::string(question->permission.id), std::map<std::string, std::string>(),
                     std::uint32_t{0}, std::string())
      .uponReplyInvoke([question](const sdbus::Error* error, const Result& result) {
        if (error != nullptr && isAbsent(*error)) {
          question->answer(groupsAllow(question->client, question->permission));
        } else {
          question->answer(error == nullptr && std::get<0>(result));
        }
      });
}

}  // namespace service
