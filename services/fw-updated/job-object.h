// SPDX-License-Identifier: Apache-2.0
// A job on the bus. Has the job from its owner, which outlives it.
#ifndef FW_UPDATED_JOB_OBJECT_H
#define FW_UPDATED_JOB_OBJECT_H

#include <functional>
#include <string>
#include <vector>

#include "job.h"
#include "update1-adaptor.gen.h"

namespace updated {

inline constexpr char kJobPaths[] = "/org/fwupdate/Update1/job/";

class JobObject : public sdbus::AdaptorInterfaces<org::fwupdate::Update1::Job_adaptor> {
 public:
  using Answer = sdbus::Result<>;
  // Both answer at once or later. client: its unique name on the bus.
  struct Requests {
    std::function<void(Answer&& answer, const Job& job, const std::string& client)> cancel;
    std::function<void(Answer&& answer, const Job& job, const std::string& client, const std::string& said)>
        consent;
  };

  JobObject(sdbus::IConnection& connection, const Job& job, const Requests& requests);
  virtual ~JobObject();
  JobObject(const JobObject&) = delete;
  JobObject& operator=(const JobObject&) = delete;

  void tellChanges(const std::vector<std::string>& properties);

 private:
  std::string client() const;

  void Cancel(sdbus::Result<>&& result) override;
  void Consent(sdbus::Result<>&& result, std::string answer) override;
  std::uint64_t Number() override { return job_.number; }
  std::string Kind() override { return nameOf(job_.request.kind); }
  std::string Module() override { return job_.module; }
  std::string State() override { return nameOf(job_.state); }
  std::int32_t Percent() override { return job_.percent; }
  double Elapsed() override { return job_.elapsedSeconds(); }
  std::uint32_t Expected() override { return job_.expectedSeconds; }
  bool Overdue() override { return job_.isOverdue; }
  std::string Outcome() override { return job_.outcome; }
  std::int32_t ExitCode() override { return job_.exitCode; }
  std::string Sentence() override { return job_.sentence; }
  std::string Remedy() override { return job_.remedy; }
  std::string VersionBefore() override { return job_.versionBefore; }
  std::string VersionAfter() override { return job_.versionAfter; }
  sdbus::Struct<std::uint32_t, std::string> AskedBy() override {
    return {job_.request.user, job_.request.client};
  }
  std::string Document() override { return job_.document; }

  const Job& job_;
  const Requests& requests_;
};

}  // namespace updated

#endif
