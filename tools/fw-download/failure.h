// Why a download ended without an image. One table says for each reason what a
// program calls it, what people can do, and whether what is there already stays, to
// be continued by the next request.
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
  kTooMuch,
  kProtocol,
  kTooBig,
  kNoSpace,
  kFileSystem,
  kInternal,
};

struct ReasonInfo {
  Reason reason;
  const char* name;
  bool keepsPart;
  const char* remedy;
};

inline constexpr ReasonInfo kReasons[] = {
    {Reason::kConfiguration, "configuration", true, "Correct /etc/fw-update/download.conf."},
    {Reason::kNotPermitted, "not-permitted", true, "Ask as root, or as the user that owns the packages."},
    {Reason::kUnreachable, "unreachable", true,
     "Check the network and the url in /etc/fw-update/download.conf."},
    {Reason::kCertificate, "certificate", true,
     "Check the device's clock, and ca_file in /etc/fw-update/download.conf."},
    {Reason::kNotFound, "not-found", false, "Check that the server offers the package."},
    {Reason::kServerError, "server-error", true, "Try again later."},
    {Reason::kRedirect, "redirect", false,
     "Check the server, or allow it with redirect_hosts in /etc/fw-update/download.conf."},
    {Reason::kIncomplete, "incomplete", true,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::kStalled, "stalled", true,
     "Try again: the download goes on where it stopped, if the server can."},
    {Reason::kTooMuch, "too-much", false, "Have the server repaired; nothing of this answer was kept."},
    {Reason::kProtocol, "protocol", false, "Have the server repaired; nothing of this answer was kept."},
    {Reason::kTooBig, "too-big", false,
     "Raise max_size_mib in /etc/fw-update/download.conf, if this is right."},
    {Reason::kNoSpace, "no-space", false, "Free space in /opt/usr/apps/appbinarymanager."},
    {Reason::kFileSystem, "file-system", false, "Check /opt/usr/apps/appbinarymanager."},
    {Reason::kInternal, "internal", true, "See the platform log."},
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
