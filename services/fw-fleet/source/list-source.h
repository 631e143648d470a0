// SPDX-License-Identifier: Apache-2.0
// A release list in a directory that anybody may serve, as the source of what the set is to have. It is
// used when a key of the set signed it, until it expires, and never after a newer one was seen. Nobody is
// told how an action ends: the set's own record says it. One thread.
#ifndef FW_FLEET_LIST_SOURCE_H
#define FW_FLEET_LIST_SOURCE_H

#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "list-seen.h"
#include "package-signature.h"
#include "release-list.h"
#include "source.h"

namespace fleet {

// Of the set. All of it outlives the source.
struct ListParts {
  std::string model;
  // Of all components, by their names. Throws InstallerAway.
  std::function<std::map<std::string, std::string>()> versions;
  std::function<std::time_t()> clock;
  fwpackage::Trust trust;
  std::string directory = "/var/lib/fw-fleet";  // of what was seen; exists
};

class ListSource : public Source {
 public:
  ListSource(const Configuration& configuration, const std::string& token, ListParts parts);

  bool hearsEnds() const override { return false; }
  bool stands(const std::string& id) const override;
  Answered<ddi::Poll> poll() const override;
  Answered<ddi::Deployment> deployment(const std::string& address) const override;

  // A list asks and takes back nothing, and nothing is heard by it.
  Answered<ddi::Deployment> confirmation(const std::string& address) const override;
  Answered<std::string> cancel(const std::string& address) const override;
  Reply installed(const std::string& address) const override;
  Reply attributes(const std::string& address,
                   const std::map<std::string, std::string>& attributes) const override;
  Reply tell(const std::string& id, const ddi::Feedback& feedback) const override;
  Reply answerCancel(const std::string& id, const ddi::Feedback& feedback) const override;
  Reply confirm(const std::string& id, bool isConfirmed,
                const std::vector<std::string>& details) const override;

 private:
  std::string fetch(const std::string& address, std::size_t most) const;
  void requireClock(const std::optional<SeenList>& seen) const;
  image::ReleaseList readList(const std::string& text, const std::string& signature) const;
  void requireNewest(const image::ReleaseList& list, const std::string& hash,
                     const std::optional<SeenList>& seen) const;
  Answered<ddi::Poll> offered() const;
  void note(const SeenList& now, const std::optional<SeenList>& before) const;
  ddi::Deployment deploymentOf(const image::ReleaseList& list,
                               const std::map<std::string, std::string>& versions) const;

  const std::string address_;
  const Client client_;
  const ListParts parts_;
  mutable std::optional<ddi::Deployment> wanted_;  // of the last list that was used
  mutable std::int64_t expires_ = 0;               // that list
};

}  // namespace fleet

#endif
