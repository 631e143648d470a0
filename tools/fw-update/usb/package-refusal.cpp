// SPDX-License-Identifier: Apache-2.0
#include "usb/package-refusal.h"

#include <dlfcn.h>
#include <unistd.h>

#include <exception>
#include <iterator>

#include "device-paths.h"
#include "device-policy.h"
#include "dlog.h"
#include "library-messages.h"
#include "minimum-versions.h"
#include "package-verifier.h"

namespace tool {
namespace {

using fwpackage::Statements;
using fwpackage::Verdict;

constexpr char kBadSignature[] = "The package {package} has no valid signature: {sentence}.";
constexpr char kNewPackage[] = "Make or download the package again.";

constexpr Refusal kRefusals[] = {
    {Verdict::UnknownKey, kBadSignature,
     "Get a package for this set: whose packages it takes was decided when it was made."},
    {Verdict::RevokedKey, "The package {package} is refused: its key is revoked.",
     "Get one that is signed with a newer key."},
    {Verdict::UnusableList, "The package {package} is refused: a list of keys cannot be read.",
     "Have the set repaired: in revoked and format-1 of /usr/share/fw-update/keys each line is one key "
     "identifier, 16 hexadecimal digits."},
    {Verdict::OldFormat,
     "The package {package} is refused: its signature has format 1, which names no component.",
     "Get one that was made with a newer fw-pack usb."},
    {Verdict::OtherKind, "The package {package} is refused: it is not signed as a USB package.",
     "Make it with fw-pack usb."},
    {Verdict::OtherName, "The package {package} is refused: it is for another component, {name}.",
     "Give it its own name again, {name}.bin."},
    {Verdict::OtherModel, "The package {package} is refused: it is for another model, {model}.",
     "Get the package for this set."},
    {Verdict::UnusableMinimum, "The package {package} is refused: the minimum version cannot be read.",
     "Look at the file of its name in /var/lib/fw-update/minimum-versions; root may pass over it with "
     "--allow-rollback."},
    {Verdict::TooOld, "The package {package} is refused: this set takes no version before {minimum}.",
     "Get a newer package, or let root apply this one with --allow-rollback."},
};

const Refusal& refusalFor(Verdict verdict) {
  static constexpr Refusal kOther{Verdict::WrongSignature, kBadSignature, kNewPackage};
  for (const Refusal& refusal : kRefusals) {
    if (refusal.verdict == verdict) {
      return refusal;
    }
  }
  return kOther;
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
}

std::string filled(std::string text, const std::string& package, const fwpackage::SignatureReport& report) {
  const Statements& stated = report.trailer.statements;
  const std::string name = stated.name.empty() ? fwpackage::nameFromPath(package) : stated.name;
  const auto minimum = fwpackage::readMinimumVersion(fwpackage::kMinimumVersionDirectory, name);
  replaceAll(text, "{name}", stated.name);
  replaceAll(text, "{model}", stated.model);
  replaceAll(text, "{minimum}", minimum.version);
  replaceAll(text, "{sentence}", fwpackage::infoOf(report.verdict).sentence);
  replaceAll(text, "{package}", package);
  return text;
}

// Stays loaded, as in the library, which asks it later: what it is told must last.
void* verifier() {
  return dlopen(fwpaths::kVerifierLibrary, RTLD_LAZY | RTLD_NODELETE);
}

// Null when the installed library is none of this project's rules.
auto rollbackEntry() {
  void* const library = verifier();
  return library == nullptr
             ? nullptr
             : reinterpret_cast<decltype(&allowPackageRollback)>(dlsym(library, "allowPackageRollback"));
}

}  // namespace

RefusalTable refusalTable() {
  return {kRefusals, std::size(kRefusals)};
}

std::optional<Finding> whyRefused(const std::string& package) {
  if (rollbackEntry() == nullptr) {
    return std::nullopt;
  }
  try {
    const auto report =
        fwpackage::checkSignature(package, fwpackage::trustOfDevice(), fwpackage::wantedAt(package));
    if (report.verdict == Verdict::Valid) {
      return std::nullopt;
    }
    const Refusal& refusal = refusalFor(report.verdict);
    return Finding{Outcome::RefusedImage, filled(refusal.message, package, report),
                   filled(refusal.remedy, package, report)};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Finding> allowRollback() {
  if (geteuid() != 0) {
    return Finding{Outcome::NotPermitted, "Only root may apply a package older than the minimum version.",
                   "Run the command as root, or leave --allow-rollback out."};
  }
  const auto allow = rollbackEntry();
  if (allow == nullptr) {
    return Finding{Outcome::Usage, "The verification library of this set knows no --allow-rollback.",
                   "Leave it out."};
  }
  allow(1);
  fwpackage::allowRollback(true);
  __dlog_print(fwmessages::kLogId, DLOG_WARN_PRIORITY, fwmessages::kTag, "%s",
               "root allows packages older than the minimum version");
  return std::nullopt;
}

}  // namespace tool
