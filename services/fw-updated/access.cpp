// SPDX-License-Identifier: Apache-2.0
#include "access.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "refusal.h"

namespace updated {
namespace {

using Variants = std::map<std::string, sdbus::Variant>;

constexpr char kGroup[] = "fwupdate";
constexpr char kAdministrators[] = "fwupdate-admin";
constexpr std::size_t kMostOpen = 256;
constexpr std::uint64_t kPatienceUs = 30'000'000;

// In the order of the enumeration.
constexpr struct {
  const char* id;       // polkit's
  const char* words;    // "may not ..."
  bool isForEverybody;  // without polkit
  bool isForMembers;    // of the group; administrators may all
} kActions[] = {
    {"org.fwupdate.update1.query", "ask about updates", true, true},
    {"org.fwupdate.update1.update", "update modules", false, true},
    {"org.fwupdate.update1.usb", "use packages of a USB drive", false, true},
    {"org.fwupdate.update1.cancel", "cancel the jobs of others", false, true},
    {"org.fwupdate.update1.configure", "change the service's settings", false, false},
    {"org.fwupdate.update1.consent", "consent to updates", false, true},
};

const auto& infoOf(Action action) {
  return kActions[static_cast<std::size_t>(action)];
}

sdbus::Error notPermitted(Action action) {
  return refusal(kNotPermitted, std::string("This user may not ") + infoOf(action).words +
                                    ". Root may, and the members of the group " + kGroup + ".");
}

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

bool groupsAllow(const Client& client, Action action) {
  return infoOf(action).isForEverybody || isIn(client, kAdministrators) ||
         (infoOf(action).isForMembers && isIn(client, kGroup));
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
  explicit Question(std::size_t& count) : open(count) { ++open; }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  ~Question() { --open; }

  void answer(bool yes) const {
    if (yes) {
      allowed(client);
    } else {
      refused(notPermitted(action));
    }
  }

  std::size_t& open;
  Client client;
  Action action = Action::Configure;
  Allowed allowed;
  Refused refused;
  std::optional<uid_t> owner;
};

Access::Access(sdbus::IConnection& connection)
    : bus_(sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")),
      polkit_(sdbus::createProxy(connection, "org.freedesktop.PolicyKit1",
                                 "/org/freedesktop/PolicyKit1/Authority")) {}

void Access::ask(const std::string& client, Action action, Allowed allowed, Refused refused,
                 std::optional<uid_t> owner) {
  if (open_ >= kMostOpen) {
    refused(refusal(kTooMany, "Too many requests wait already. Try again."));
    return;
  }
  const auto question = std::make_shared<Question>(open_);
  question->client.name = client;
  question->action = action;
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
  } else {
    askPolkit(question);
  }
}

// Nobody is asked for a password: a client that wants that asks polkit itself, before.
void Access::askPolkit(const std::shared_ptr<Question>& question) {
  using Subject = sdbus::Struct<std::string, Variants>;
  using Result = sdbus::Struct<bool, bool, std::map<std::string, std::string>>;
  const Subject subject("system-bus-name", {{"name", sdbus::Variant(question->client.name)}});
  polkit_->callMethodAsync("CheckAuthorization")
      .onInterface("org.freedesktop.PolicyKit1.Authority")
      .withTimeout(kPatienceUs)
      .withArguments(subject, std::string(infoOf(question->action).id), std::map<std::string, std::string>(),
                     std::uint32_t{0}, std::string())
      .uponReplyInvoke([question](const sdbus::Error* error, const Result& result) {
        if (error != nullptr && isAbsent(*error)) {
          question->answer(groupsAllow(question->client, question->action));
        } else {
          question->answer(error == nullptr && std::get<0>(result));
        }
      });
}

}  // namespace updated
