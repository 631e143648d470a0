// Why a download ended without an image. One table says for each reason what a
// program calls it, what people can do, whether what is there already stays, to be
// continued by the next request, and whether this one tries again itself.
#ifndef FW_DOWNLOAD_FAILURE_H
#define FW_DOWNLOAD_FAILURE_H

#include <stdexcept>
#include <string>

namespace fwdownload {

enum class Reason {
  kConfiguration,
  kNotPermitted,
  kUnreachable,
  kCertificate,
  kNotFound,
  kServerError,
  kRedirect,
  kIncomplete,
  kStalled,
  kTooSlow,
  kTooMuch,
  kProtocol,
  kTooBig,
  kNoSpace,
  kFileSystem,
  kInsecure,
  kUnsigned,
  kNotTrusted,
  kTooOld,
  kUnusableLists,
  kInternal,
};

struct ReasonInfo {
  Reason reason;
  const char* name;
  bool keepsPart;
  bool isTakenUpAgain;  // at once, as often as the configuration allows
  const char* remedy;
};

inline constexpr ReasonInfo kReasons[] = {
    {Reason::kConfiguration, "configuration", true, false, "Correct /etc/fw-update/download.conf."},
    {Reason::kNotPermitted, "not-permitted", true, false,
     "Ask as root, or as the user that owns the packages."},
    {Reason::kUnreachable, "unreachable", true, false,
     "Check the network and the url in /etc/fw-update/download.conf."},
    {Reason::kCertificate, "certificate", true, false,
     "Check the device's clock, and ca_file in /etc/fw-update/download.conf."},
    {Reason::kNotFound, "not-found", false, false, "Check that the server offers the package."},
    {Reason::kServerError, "server-error", true, false, "Try again later."},
    {Reason::kRedirect, "redirect", false, false,
     "Check the server, or allow it with redirect_hosts in /etc/fw-update/download.conf."},
    {Reason::kIncomplete, "incomplete", true, false,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::kStalled, "stalled", true, true,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::kTooSlow, "too-slow", true, true,
     "Try again: the download goes on where it stopped, if the server can; or lower min_speed_kib_s in "
     "/etc/fw-update/download.conf."},
    {Reason::kTooMuch, "too-much", false, false,
     "Have the server repaired; nothing of this answer was kept."},
    {Reason::kProtocol, "protocol", false, false,
     "Have the server repaired; nothing of this answer was kept."},
    {Reason::kTooBig, "too-big", false, false,
     "Raise max_size_mib in /etc/fw-update/download.conf, if this is right."},
    {Reason::kNoSpace, "no-space", false, false, "Free space in /opt/usr/apps/appbinarymanager."},
    {Reason::kFileSystem, "file-system", false, false, "Check /opt/usr/apps/appbinarymanager."},
    {Reason::kInsecure, "insecure", true, false,
     "Use an https:// url, or set allow_insecure = true in /etc/fw-update/download.conf."},
    {Reason::kUnsigned, "unsigned", false, false,
     "Have the package signed, or set allow_unsigned = true in /etc/fw-update/download.conf."},
    {Reason::kNotTrusted, "not-trusted", false, false,
     "Offer a package that is signed for this set, by a key in /usr/share/fw-update/keys."},
    {Reason::kTooOld, "too-old", false, false,
     "Offer a newer package: this set takes no older ones any more."},
    {Reason::kUnusableLists, "unusable-lists", false, false,
     "Repair the lists in /usr/share/fw-update/keys, or what is in /var/lib/fw-update/minimum-versions."},
    {Reason::kInternal, "internal", true, false, "See the platform log."},
};

constexpr const ReasonInfo& InfoOf(Reason reason) {
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
