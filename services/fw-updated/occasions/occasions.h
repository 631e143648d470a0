// SPDX-License-Identifier: Apache-2.0
// The service acting by itself: on each occasion of the configuration it asks what is needed, and
// updates it, asks for consent, or announces it, as the configuration says. One thread.
#ifndef FW_UPDATED_OCCASIONS_H
#define FW_UPDATED_OCCASIONS_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "configuration.h"
#include "daily-window.h"
#include "drive-watch.h"
#include "jobs.h"
#include "sleep-watch.h"
#include "tool-query.h"

namespace updated {

// One that is needed.
struct Offer {
  std::string module;
  std::string version;  // of the image; empty: not known
  std::string updateClass;
};

// In fw-update's document.
std::vector<Offer> offersIn(const Json::Value& pending);

class Occasions {
 public:
  using Announce = std::function<void(const std::vector<std::string>& modules)>;

  Occasions(EventLoop& loop, sdbus::IConnection& connection, const Configuration& configuration,
            std::string keyFile, Jobs& jobs, ToolQueries& queries, Announce announce);
  Occasions(const Occasions&) = delete;
  Occasions& operator=(const Occasions&) = delete;

  // The occasion of the start is now.
  void begin();
  // "yes", "no" or "later", of a job that asks.
  void answer(std::uint64_t job, const std::string& said);

 private:
  enum class Asking { Allowed, Pointless };

  void look(Asking asking);
  void lookAtDrive(const std::string& folder);
  void lookBeforeTheEnd();
  void act(const std::vector<Offer>& offers, Asking asking);
  void leave(const std::vector<std::string>& modules);
  bool wasDeclined(const Offer& offer) const;
  void add(Request request, const std::string& version, bool isAsking);
  void releaseWhenIdle();

  EventLoop& loop_;
  sdbus::IConnection& connection_;
  const Configuration configuration_;
  const std::string keyFile_;  // of USB packages
  Jobs& jobs_;
  ToolQueries& queries_;
  const Announce announce_;
  std::map<std::uint64_t, Offer> asked_;         // by the job that asks
  std::map<std::string, std::string> declined_;  // the versions, by module
  int looks_ = 0;                                // that have no answer yet
  std::unique_ptr<DailyWindow> window_;
  std::unique_ptr<DriveWatch> drives_;
  std::unique_ptr<SleepWatch> sleep_;
};

}  // namespace updated

#endif
