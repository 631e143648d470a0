// SPDX-License-Identifier: Apache-2.0
// The service on the bus: looks at what it is asked, has it looked at who asks, and answers from
// the jobs and from fw-update. One thread.
#ifndef FW_UPDATED_MANAGER_H
#define FW_UPDATED_MANAGER_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "intake.h"
#include "jobs.h"
#include "permissions.h"
#include "tool-query.h"
#include "update1-adaptor.gen.h"

namespace updated {

using JobList = Jobs;  // the interface has a property of that name

inline constexpr char kBusName[] = "org.fwupdate.Update1";
inline constexpr char kManagerPath[] = "/org/fwupdate/Update1";

class Manager : public sdbus::AdaptorInterfaces<org::fwupdate::Update1_adaptor> {
 public:
  Manager(sdbus::IConnection& connection, Access& access, JobList& jobs, ToolQueries& queries,
          Intake& intake);
  virtual ~Manager();

  // Where the answers of people go, for jobs that ask: "yes", "no" or "later".
  using Consented = std::function<void(std::uint64_t job, const std::string& said)>;
  void whenConsented(Consented step) { consented_ = std::move(step); }
  // Modules that could be updated, of which nobody has decided yet.
  void announce(const std::vector<std::string>& modules);

  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

 private:
  using JobAnswer = sdbus::Result<sdbus::ObjectPath>;
  using Text = std::string;
  using ModuleRow = sdbus::Struct<Text, Text, Text, Text>;
  using PendingRow = sdbus::Struct<Text, Text, Text, Text, Text, Text>;
  using HistoryRow =
      sdbus::Struct<std::int64_t, std::int64_t, std::int64_t, Text, Text, Text, Text, Text, Text, Text, Text>;

  std::string client() const;
  void addJob(JobAnswer&& answer, Action action, Request request);
  struct HandingOver;
  void lookUpPackage(const std::shared_ptr<HandingOver>& handing);
  void takeIn(const std::shared_ptr<HandingOver>& handing);
  Taken problemWith(const HandingOver& handing) const;
  void addTaken(const std::shared_ptr<HandingOver>& handing, const Taken& taken);
  // put gets what was answered, and may throw sdbus::Error.
  template <typename Answer, typename Put>
  void query(Answer&& answer, std::vector<std::string> command, Put put);
  void cancel(sdbus::Result<>&& answer, const Job& job, const std::string& client);
  void consent(sdbus::Result<>&& answer, const Job& job, const std::string& client, const std::string& said);

  void Update(JobAnswer&& result, std::string module, std::string caller, std::string data) override;
  void UpdateAll(JobAnswer&& result) override;
  void ApplyUsb(JobAnswer&& result, std::string folder) override;
  void EstimateUsb(JobAnswer&& result, std::string folder) override;
  void Download(JobAnswer&& result, std::string module) override;
  void UpdateFrom(JobAnswer&& result, std::string module, std::string kind,
                  std::map<std::string, sdbus::UnixFd> files) override;
  void ListModules(sdbus::Result<std::vector<ModuleRow>>&& result) override;
  void Pending(sdbus::Result<std::vector<PendingRow>>&& result, std::string caller) override;
  void LockStatus(sdbus::Result<Text, Text, Text>&& result) override;
  void History(sdbus::Result<std::vector<HistoryRow>>&& result, std::string module, bool failedOnly,
               std::uint32_t most) override;
  void Query(sdbus::Result<Text>&& result, std::string command, std::vector<std::string> arguments) override;
  std::vector<sdbus::ObjectPath> Jobs() override { return jobs_.paths(); }
  std::string Version() override { return FW_UPDATED_VERSION; }

  Access& access_;
  JobList& jobs_;
  ToolQueries& queries_;
  Intake& intake_;
  std::size_t handingsOver_ = 0;
  Consented consented_;
};

}  // namespace updated

#endif
