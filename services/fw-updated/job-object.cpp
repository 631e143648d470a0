// SPDX-License-Identifier: Apache-2.0
#include "job-object.h"

#include <utility>

namespace updated {

JobObject::JobObject(sdbus::IConnection& connection, const Job& job, const Requests& requests)
    : AdaptorInterfaces(connection, kJobPaths + std::to_string(job.number)), job_(job), requests_(requests) {
  registerAdaptor();
}

JobObject::~JobObject() {
  unregisterAdaptor();
}

void JobObject::tellChanges(const std::vector<std::string>& properties) {
  if (!properties.empty()) {
    getObject().emitPropertiesChangedSignal(org::fwupdate::Update1::Job_adaptor::INTERFACE_NAME, properties);
  }
}

std::string JobObject::client() const {
  return getObject().getCurrentlyProcessedMessage()->getSender();
}

void JobObject::Cancel(sdbus::Result<>&& result) {
  requests_.cancel(std::move(result), job_, client());
}

void JobObject::Consent(sdbus::Result<>&& result, std::string answer) {
  requests_.consent(std::move(result), job_, client(), answer);
}

}  // namespace updated
