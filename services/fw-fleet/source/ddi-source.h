// SPDX-License-Identifier: Apache-2.0
// A fleet's server as the set speaks to it: what it wants, and how it is told what came of that. One
// request each. One thread.
#ifndef FW_FLEET_DDI_SOURCE_H
#define FW_FLEET_DDI_SOURCE_H

#include <map>
#include <string>
#include <vector>

#include "source.h"

namespace fleet {

class DdiSource : public Source {
 public:
  DdiSource(const Configuration& configuration, const std::string& token);

  bool hearsEnds() const override { return true; }
  bool stands(const std::string&) const override { return true; }

  Answered<ddi::Poll> poll() const override;
  Answered<ddi::Deployment> deployment(const std::string& address) const override;
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
  template <typename Document>
  Answered<Document> read(Asked asked, const std::string& address, std::size_t most,
                          Document (*parse)(const std::string& text)) const;
  std::string feedbackAddress(const char* what, const std::string& id) const;

  const std::string base_;
  const Client client_;
};

}  // namespace fleet

#endif
