// SPDX-License-Identifier: Apache-2.0
// Why a download ended without an image. One table says for each reason what a
// program calls it, what people can do, whether what is there already stays, to be
// continued by the next request, and whether this one tries again itself.
#ifndef FW_DOWNLOAD_FAILURE_H
#define FW_DOWNLOAD_FAILURE_H

#include <stdexcept>
#include <string>

namespace fwdownload {

enum class Reason {
  Configuration,
  NotPermitted,
  Unreachable,
  Certificate,
  NotFound,
  ServerError,
  Redirect,
  Incomplete,
  Stalled,
  TooSlow,
  TooMuch,
  Protocol,
  TooBig,
  NoSpace,
  FileSystem,
  Insecure,
  Unsigned,
  NotTrusted,
  TooOld,
  UnusableLists,
  Internal,
};

struct ReasonInfo {
  Reason reason;
  const char* name;
  bool keepsPart;
  bool isTakenUpAgain;  // at once, as often as the configuration allows
  const char* remedy;
};

inline constexpr ReasonInfo kReasons[] = {
    {Reason::Configuration, "configuration", true, false, "Correct /etc/fw-update/download.conf."},
    {Reason::NotPermitted, "not-permitted", true, false,
     "Ask as root, or as the user that owns the packages."},
    {Reason::Unreachable, "unreachable", true, false,
     "Check the network and the url in /etc/fw-update/download.conf."},
    {Reason::Certificate, "certificate", true, false,
     "Check the device's clock, and ca_file in /etc/fw-update/download.conf."},
    {Reason::NotFound, "not-found", false, false, "Check that the server offers the package."},
    {Reason::ServerError, "server-error", true, false, "Try again later."},
    {Reason::Redirect, "redirect", false, false,
     "Check the server, or allow it with redirect_hosts in /etc/fw-update/download.conf."},
    {Reason::Incomplete, "incomplete", true, false,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::Stalled, "stalled", true, true,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::TooSlow, "too-slow", true, true,
     "Try again: the download goes on where it stopped, if the server can; or lower min_speed_kib_s in "
     "/etc/fw-update/download.conf."},
    {Reason::TooMuch, "too-much", false, false, "Have the server repaired; nothing of this answer was kept."},
    {Reason::Protocol, "protocol", false, false,
     "Have the server repaired; nothing of this answer was kept."},
    {Reason::TooBig, "too-big", false, false,
     "Raise max_size_mib in /etc/fw-update/download.conf, if this is right."},
    {Reason::NoSpace, "no-space", false, false, "Free space in /opt/usr/apps/appbinarymanager."},
    {Reason::FileSystem, "file-system", false, false, "Check /opt/usr/apps/appbinarymanager."},
    {Reason::Insecure, "insecure", true, false,
     "Use an https:// url, or set allow_insecure = true in /etc/fw-update/download.conf."},
    {Reason::Unsigned, "unsigned", false, false,
     "Have the package signed, or set allow_unsigned = true in /etc/fw-update/download.conf."},
    {Reason::NotTrusted, "not-trusted", false, false,
     "Offer a package that is signed for this set, by a key in /usr/share/fw-update/keys."},
    {Reason::TooOld, "too-old", false, false,
     "Offer a newer package: this set takes no older ones any more."},
    {Reason::UnusableLists, "unusable-lists", false, false,
     "Repair the lists in /usr/share/fw-update/keys, or what is in /var/lib/fw-update/minimum-versions."},
    {Reason::Internal, "internal", true, false, "See the platform log."},
};

constexpr const ReasonInfo& infoOf(Reason reason) {
  for (const ReasonInfo& info : kReasons) {
    if (info.reason == reason) {
      return info;
    }
  }
  return kReasons[sizeof kReasons / sizeof kReasons[0] - 1];
}

// what() is one sentence for people.
class Failure : public std::runtime_error {
 public:
  Failure(Reason reason, const std::string& sentence) : std::runtime_error(sentence), reason_(reason) {}
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

}  // namespace fwdownload

#endif
